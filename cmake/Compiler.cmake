# One place for what every translation unit is compiled with: link `zone_options` to get it.
# No NDEBUG: the checks of the code stay active in the build that is shipped.
string(REPLACE "-DNDEBUG" "" CMAKE_C_FLAGS_RELWITHDEBINFO "${CMAKE_C_FLAGS_RELWITHDEBINFO}")
string(REPLACE "-DNDEBUG" "" CMAKE_CXX_FLAGS_RELWITHDEBINFO "${CMAKE_CXX_FLAGS_RELWITHDEBINFO}")

add_library(zone_options INTERFACE)
target_compile_options(zone_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
  -fstack-protector-strong -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
target_compile_definitions(zone_options INTERFACE _GNU_SOURCE)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # Else a file system, a file or the number of an inode that is too large for 32 bits is an error of the call.
  # Neither GLib nor liblxc takes an off_t from us. Times stay as wide as those of the libraries below.
  target_compile_definitions(zone_options INTERFACE _FILE_OFFSET_BITS=64)
  # About compilers of before 2017, which passed some arguments otherwise.
  target_compile_options(zone_options INTERFACE -Wno-psabi)
endif()
target_include_directories(zone_options INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include_internal)

if(ZONE_SANITIZE)
  add_compile_options(-fsanitize=${ZONE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ZONE_SANITIZE})
endif()
if(ZONE_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage -Wl,--wrap=_exit)
endif()

# What an instrumented program needs besides; see the sources.
if(ZONE_SANITIZE MATCHES "thread")
  set(ZONE_INSTRUMENT_SOURCE ${PROJECT_SOURCE_DIR}/tests/support/sanitizers/thread_sanitizer.cpp)
  add_link_options(-Wl,--wrap=g_async_queue_push_unlocked -Wl,--wrap=g_async_queue_try_pop)
elseif(ZONE_SANITIZE MATCHES "address")
  set(ZONE_INSTRUMENT_SOURCE ${PROJECT_SOURCE_DIR}/tests/support/sanitizers/address_sanitizer.cpp)
elseif(ZONE_COVERAGE)
  set(ZONE_INSTRUMENT_SOURCE ${PROJECT_SOURCE_DIR}/tests/support/coverage/coverage_exit.cpp)
endif()
# Links a program of ours with it; does nothing in the other presets.
function(zone_instrument target)
  if(ZONE_INSTRUMENT_SOURCE)
    target_sources(${target} PRIVATE ${ZONE_INSTRUMENT_SOURCE})
    target_link_libraries(${target} PRIVATE PkgConfig::GLIB)
  endif()
endfunction()
