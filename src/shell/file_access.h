// Opening of the files that commands name. Every file a command reads, writes or
// removes goes through here, so that a run confined to its working folder (as when
// instructions are fuzzed) can refuse names that reach outside it.
#pragma once

#include <cstdio>
#include <string>

namespace qax::shell {

// Confines file names to the working folder: absolute names, names starting with "~"
// and names with a ".." part are refused. Off by default.
void set_file_confinement(bool on);
bool file_confinement();

// Fails the command when the name may not be used ("Access to file X is not allowed
// (outside the working folder)").
void check_file_name(const std::string& name);

// std::fopen after the check.
std::FILE* open_user_file(const std::string& name, const char* mode);

}  // namespace qax::shell
