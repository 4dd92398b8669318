#include "platform/base/path_conf.h"

#include "platform/base/file.h"

namespace platform {

namespace {

constexpr const char* COMPONENT_WORD = "$COMPONENT";

std::string& component_name() {
  static std::string name = "scsipool";
  return name;
}

std::string& root_folder() {
  static std::string folder;
  return folder;
}

std::string expand(const std::string& folder) {
  const std::size_t at = folder.find(COMPONENT_WORD);
  if (at == std::string::npos) return folder;
  std::string expanded = folder;
  expanded.replace(at, std::string(COMPONENT_WORD).size(), component_name());
  return root_folder() + expanded;
}

void join(std::string& path, const std::string& part) {
  const std::size_t begin = part.find_first_not_of('/');
  if (begin == std::string::npos) return;
  if (path.empty() || path.back() != '/') path += '/';
  path.append(part, begin, std::string::npos);
}

}  // namespace

Path_Conf::Path_Conf(const std::string& folder, mode_t mode) : folder_(expand(folder)), mode_(mode) {}

std::string Path_Conf::path(const std::string& first, const std::string& second) const {
  std::string out = folder_;
  join(out, first);
  join(out, second);
  return out;
}

bool Path_Conf::make_path(std::string& out, const std::string& first, const std::string& second) const {
  const std::string wanted = path(first, second);
  if (!mkdir_p(wanted, mode_ != 0 ? mode_ : 0755)) return false;
  out = wanted;
  return true;
}

void Path_Conf::component(const std::string& name) {
  component_name() = name;
}

void Path_Conf::root(const std::string& folder) {
  root_folder() = folder;
}

}  // namespace platform
