#include "platform/zfs/zfs_dataset.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "platform/base/log.h"
#include "platform/zfs/zfs_host.h"
#include "platform/zfs/zfs_parse.h"
#include "platform/zfs/zfs_tool.h"

namespace {

// Also keeps a name from being read as an option or as more than one assignment.
bool is_property_name(const std::string& name) {
  const auto allowed = [](unsigned char c) { return std::isalnum(c) || std::strchr("_.:@#-", c) != nullptr; };
  return !name.empty() && name[0] != '-' && std::all_of(name.begin(), name.end(), allowed);
}

// ZFS takes these values in lower case only.
bool is_keyword_property(const std::string& name) {
  return name == "compression" || name == "dedup" || name == "checksum" || name == "sync";
}

std::string value_to_write(const std::string& name, const std::string& value) {
  if (!is_keyword_property(name)) return value;
  std::string lower = value;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  return lower;
}

void report(const std::vector<std::string>& argv, const zfs::Tool_Result& result, bool log) {
  const std::string words = zfs::failure_words(argv, result);
  // A tool or module that is not there, or does not answer, is no matter of one dataset.
  if (zfs::is_host_failure(result)) {
    LOG_FAILURE("Failed to access ZFS '%s': %s\n", argv.back().c_str(), words.c_str());
  } else if (log) {
    LOG_NOTICE("%s %s '%s': %s\n", argv[0].c_str(), argv[1].c_str(), argv.back().c_str(), words.c_str());
  }
}

}  // namespace

ZFS_Dataset::ZFS_Dataset(const std::string& dataset, bool log) : dataset_(dataset), log_(log) {}

bool ZFS_Dataset::open() {
  state_ = State::pending;
  fresh_ = false;
  return load();
}

void ZFS_Dataset::open_when_needed() {
  const std::string pool = dataset_.substr(0, dataset_.find_first_of("/@"));
  const bool absent = zfs::pool_presence(pool) == zfs::Pool_Presence::absent;
  state_ = absent ? State::closed : State::pending;
  fresh_ = false;
}

ZFS_Dataset::operator bool() const {
  return state_ == State::open || load();
}

bool ZFS_Dataset::load() const {
  if (state_ == State::closed) return false;
  if (fresh_) return true;
  fresh_ = read("all", values_);
  state_ = fresh_ ? State::open : State::closed;
  return fresh_;
}

bool ZFS_Dataset::read(const std::string& property, std::map<std::string, std::string>& values) const {
  const std::vector<std::string> argv = {"zfs", "get", "-Hp", "-o", "property,value", property, dataset_};
  zfs::Tool_Result result;
  const bool good = zfs::run_tool(argv, zfs::READ_LIMIT, result);
  if (!good) report(argv, result, log_);
  return good && zfs::parse_properties(result.lines, values);
}

bool ZFS_Dataset::get_prop(const char* name, std::string& value, bool log) const {
  if (!load()) return false;
  auto found = values_.find(name);
  if (found == values_.end() && (std::string(name) == "origin" || std::string(name) == "clones")) {
    // The only way to say "not a clone" and "no clones" in a listing of all.
    value = "-";
    return true;
  }
  if (found == values_.end()) {
    // Not part of "all", as an unset user property is.
    std::map<std::string, std::string> one;
    if (!is_property_name(name) || !read(name, one) || !one.count(name)) {
      if (log && log_) LOG_NOTICE("ZFS '%s' has no property '%s'\n", dataset_.c_str(), name);
      return false;
    }
    found = values_.emplace(name, one[name]).first;
  }
  value = found->second;
  return true;
}

bool ZFS_Dataset::get_prop(const char* name, bool& value, bool log) const {
  if (!load()) return false;
  const auto found = values_.find(name);
  if (found == values_.end() || found->second == "-") {
    const std::string property = name;
    const bool is_snapshot = dataset_.find('@') != std::string::npos;
    if (property == "mounted") value = false;
    if (property == "readonly" && is_snapshot) value = true;
    if (property == "mounted" || (property == "readonly" && is_snapshot)) return true;
  }
  std::string text;
  if (!get_prop(name, text, log)) return false;
  if (zfs::parse_boolean(text, value)) return true;
  if (log && log_)
    LOG_NOTICE("Property '%s' of ZFS '%s' is no boolean: '%s'\n", name, dataset_.c_str(), text.c_str());
  return false;
}

bool ZFS_Dataset::get_prop(const char* name, ACE_UINT64& value, bool log) const {
  std::string text;
  if (!get_prop(name, text, log)) return false;
  if (zfs::parse_unsigned(text, value)) return true;
  if (log && log_)
    LOG_NOTICE("Property '%s' of ZFS '%s' is no number: '%s'\n", name, dataset_.c_str(), text.c_str());
  return false;
}

bool ZFS_Dataset::set_prop(const char* name, const char* value, bool log) {
  const bool keep = log_;
  log_ = log && log_;
  const bool good = write({{name, value}});
  log_ = keep;
  return good;
}

bool ZFS_Dataset::set_prop(const char* name, ACE_UINT64 value, bool log) {
  const std::string property = name;
  const bool is_quota = property == "quota" || property == "refquota";
  const std::string text = is_quota && value == 0 ? "none" : std::to_string(value);
  return set_prop(name, text.c_str(), log);
}

bool ZFS_Dataset::set_props(const Values& values, std::string& failed) {
  if (values.size() > 1 && write(values)) return true;
  for (const auto& one : values) {
    if (write({one})) continue;
    failed = one.first;
    return false;
  }
  return true;
}

bool ZFS_Dataset::write(const Values& values) {
  if (state_ == State::closed || values.empty()) return false;
  std::vector<std::string> argv = {"zfs", "set"};
  for (const auto& one : values) {
    if (!is_property_name(one.first)) {
      if (log_) LOG_NOTICE("'%s' is no name of a ZFS property\n", one.first.c_str());
      return false;
    }
    argv.push_back(one.first + "=" + value_to_write(one.first, one.second));
  }
  argv.push_back(dataset_);
  fresh_ = false;
  zfs::Tool_Result result;
  const bool good = zfs::run_tool(argv, 0, result);
  if (!good) report(argv, result, log_);
  return good;
}
