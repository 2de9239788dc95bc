// Checks of file names named by commands.
#include "shell/file_access.h"

#include "shell/failure.h"

namespace qax::shell {

namespace {
bool confined = false;

bool reaches_outside(const std::string& name) {
  if (name.empty()) return false;
  if (name[0] == '/' || name[0] == '~') return true;
  std::size_t start = 0;
  while (start <= name.size()) {
    std::size_t end = name.find('/', start);
    if (end == std::string::npos) end = name.size();
    if (name.compare(start, end - start, "..") == 0 && end - start == 2) return true;
    start = end + 1;
  }
  return false;
}
}  // namespace

void set_file_confinement(bool on) { confined = on; }
bool file_confinement() { return confined; }

void check_file_name(const std::string& name) {
  if (confined && reaches_outside(name))
    error_exit({"Access to file", name, "is not allowed (outside the working folder)"});
}

std::FILE* open_user_file(const std::string& name, const char* mode) {
  check_file_name(name);
  return std::fopen(name.c_str(), mode);
}

}  // namespace qax::shell
