#include "ZoneCore/ZoneKind.h"

#include "Common/Log.h"
#include "Common/ThreadId.h"
#include "ZoneCore/RuntimePaths.h"
#include "ZoneCore/ZoneSecurityPolicy.h"

#include <memory>
#include <sys/statvfs.h>
#include <unistd.h>

namespace ZoneCore {

namespace {

constexpr const char* WRITABLE_PREFIX = "/opt";
constexpr const char* OPT_DIRECTORY = "/opt";
constexpr const char* OPT_LABEL = "_"; // of every kind

bool exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

} // namespace

bool ZoneKind::checkZoneSmackLabel()
{
    const std::string readOnlyPath = basePath + "/" + zoneName;
    const std::string writablePath = WRITABLE_PREFIX + readOnlyPath;
    if (!checkROZoneSmackLabel(readOnlyPath, rule.readOnlyLabel) ||
        !checkRWZoneSmackLabel(writablePath, rule.writableLabel) ||
        !checkRWZoneSmackLabel(writablePath + OPT_DIRECTORY, OPT_LABEL)) {
        return false;
    }
    ZLOGI("[%s:%d] \"%s\" is %s Zone...It is permitted...", threadName.c_str(), currentThreadId(),
          zoneName.c_str(), rule.word);
    return true;
}

bool ZoneKind::permitReadOnlyPath(const std::string& path, const std::string& label)
{
    const auto policy = std::make_shared<ZoneSecurityPolicy>();
    if (!exists(path)) {
        ZLOGE("[%s:%d] There is no read-only path...[%s / %s]", threadName.c_str(), currentThreadId(),
              path.c_str(), label.c_str());
        return false;
    }
    const std::string current = policy->getContainerSmackLabel(path);
    ZLOGI("[%s:%d] \"%s\" is %s Zone...It is permitted...[ro path : %s / %s - %s](ref count : %ld)",
          threadName.c_str(), currentThreadId(), zoneName.c_str(), rule.word, path.c_str(), current.c_str(),
          label.c_str(), policy.use_count());
    return true;
}

bool ZoneKind::enforceReadOnlyPath(const std::string& path, const std::string& label)
{
    const auto policy = std::make_shared<ZoneSecurityPolicy>();
    const std::string current = policy->getContainerSmackLabel(path);
    if (!exists(path)) {
        ZLOGE("[%s:%d] There is no read-only path(%s)...[%s / %s](ref count : %ld)", threadName.c_str(),
              currentThreadId(), path.c_str(), current.c_str(), label.c_str(), policy.use_count());
        return false;
    }
    if (current == label) {
        ZLOGI("[%s:%d] Access Level of %s Zone(RO) is permitted...[%s / %s == %s](ref count : %ld)",
              threadName.c_str(), currentThreadId(), rule.word, path.c_str(), current.c_str(), label.c_str(),
              policy.use_count());
        return true;
    }
    struct statvfs status
    {};
    if (statvfs(path.c_str(), &status) < 0) {
        ZLOGE("[%s:%d] statvfs() is failed...", threadName.c_str(), currentThreadId());
        return false;
    }
    if ((status.f_flag & ST_RDONLY) != 0) {
        ZLOGE("[%s:%d] This is RO directory(%s)...", threadName.c_str(), currentThreadId(), path.c_str());
        return false;
    }
    if (!policy->setContainerSmackLabel(path, label)) {
        ZLOGE("[%s:%d] Access Level of %s Zone(RO) is not permitted...[%s != %s](ref count : %ld)",
              threadName.c_str(), currentThreadId(), rule.word, path.c_str(), label.c_str(),
              policy.use_count());
        return false;
    }
    ZLOGI("[%s:%d] Access Level of %s Zone(RO) is set successfully...[%s => %s](ref count : %ld)",
          threadName.c_str(), currentThreadId(), rule.word, path.c_str(), label.c_str(), policy.use_count());
    return true;
}

bool ZoneKind::permitWritablePath(const std::string& path, const std::string& label)
{
    const auto policy = std::make_shared<ZoneSecurityPolicy>();
    if (!policy->ensureContainerPath(path, RuntimePaths::MODE)) {
        ZLOGE("[%s:%d] Failed to create RW path of %s Zone(RW)...[%s%s]", threadName.c_str(),
              currentThreadId(), rule.word, rule.pathWord, path.c_str());
        return false;
    }
    ZLOGI("[%s:%d] RW path of %s Zone(RW) is created...[%s%s]", threadName.c_str(), currentThreadId(),
          rule.word, rule.pathWord, path.c_str());
    const std::string current = policy->getContainerSmackLabel(path);
    ZLOGI("[%s:%d] \"%s\" is %s Zone...It is permitted...[rw path : %s / %s - %s](ref count : %ld)",
          threadName.c_str(), currentThreadId(), zoneName.c_str(), rule.word, path.c_str(), current.c_str(),
          label.c_str(), policy.use_count());
    return true;
}

bool ZoneKind::enforceWritablePath(const std::string& path, const std::string& label)
{
    const auto policy = std::make_shared<ZoneSecurityPolicy>();
    if (!policy->ensureContainerPath(path, RuntimePaths::MODE)) {
        ZLOGE("[%s:%d] Failed to create RW path of %s Zone(RW)...[%s%s](ref count : %ld)", threadName.c_str(),
              currentThreadId(), rule.word, rule.pathWord, path.c_str(), policy.use_count());
        return false;
    }
    ZLOGI("[%s:%d] RW path of %s Zone(RW) is created...[%s%s]", threadName.c_str(), currentThreadId(),
          rule.word, rule.pathWord, path.c_str());
    const std::string current = policy->getContainerSmackLabel(path);
    if (current == label) {
        ZLOGI("[%s:%d] Access Level of %s Zone(RW) is permitted...[%s / %s == %s](ref count : %ld)",
              threadName.c_str(), currentThreadId(), rule.word, path.c_str(), current.c_str(), label.c_str(),
              policy.use_count());
        return true;
    }
    if (!policy->setContainerSmackLabel(path, label)) {
        ZLOGE("[%s:%d] Access Level of %s Zone(RW) is not permitted...[%s != %s](ref count : %ld)",
              threadName.c_str(), currentThreadId(), rule.word, path.c_str(), label.c_str(),
              policy.use_count());
        return false;
    }
    ZLOGI("[%s:%d] Access Level of %s Zone(RW) is set successfully...[%s => %s](ref count : %ld)",
          threadName.c_str(), currentThreadId(), rule.word, path.c_str(), label.c_str(), policy.use_count());
    return true;
}

} // namespace ZoneCore
