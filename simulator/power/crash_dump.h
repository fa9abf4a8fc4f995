// What a crashed modem leaves: a file for each crash, dumps/modem-N.txt in the storage directory.
#pragma once

#include <string>

namespace pelmar::sim {

struct Simulation;

// Writes the dump and returns its path. Throws std::runtime_error where it cannot.
std::string write_crash_dump(const std::string& storage_directory, Simulation& simulation);

}  // namespace pelmar::sim
