#pragma once

#include <string>

/// Keeps a second daemon out: takes the exclusive lock on the lock file, without waiting.
/// @param path the lock file; its directory is made when missing
/// @return the locked descriptor, which is the lock as long as it stays open; -1 after a failure that has
/// been logged
[[nodiscard]] int get_zone_manager_lock(std::string& path);

/// Gives the lock up and removes its file.
/// @param fd the lock's descriptor, set to -1
void release_zone_manager_lock(const char* path, int* fd);

/// Makes the zone template directories and labels the one for secure data; failures are only logged.
void init_template_path();
