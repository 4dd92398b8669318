#include "tests/support/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

Temp_Dir::Temp_Dir() {
  const char* base = std::getenv("TMPDIR");
  path_ = std::string(base != nullptr ? base : "/tmp") + "/scsipool-test.XXXXXX";
  if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary folder below " + path_);
}

Temp_Dir::~Temp_Dir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}
