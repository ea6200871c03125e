#pragma once

/// Read before the daemon's main.cpp: gives its main function another symbol, since each test program has a
/// main of its own. To the compiler it still is main, as which it appears in the records.
int main() __asm__("zone_manager_main");
