#include "Common/SystemError.h"

#include <cstring>

namespace ZoneCore {

SystemErrorText::SystemErrorText(int error) : text(strerror_r(error, buffer.data(), buffer.size()))
{
    if (text == nullptr || *text == '\0') {
        text = buffer.data();
    }
}

} // namespace ZoneCore
