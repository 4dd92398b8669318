#include "platform/lio/lio_record.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/base/file.h"
#include "platform/base/log.h"

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::object_get;
using json_spirit::Value;

namespace lio {

namespace {

constexpr std::time_t KEEP_SECONDS = 3600;
constexpr std::size_t MOST_RELEASED = 4096;
constexpr unsigned LAST_NUMBER = 65534;  // 65535 is never given out

const char* mode_text(Mode mode) {
  return mode == Mode::demo ? "demo" : mode == Mode::acl ? "acl" : "fresh";
}

Mode mode_of(const std::string& text) {
  if (text == "demo") return Mode::demo;
  if (text == "acl") return Mode::acl;
  if (text == "fresh") return Mode::fresh;
  throw json_spirit::JSON_Error("'" + text + "' is no mode");
}

LIO_Target_Type type_of(const std::string& text) {
  LIO_Target_Type type = TYPE_UNKNOWN;
  if (!lio_target_string_to_type(text, type))
    throw json_spirit::JSON_Error("'" + text + "' is no target type");
  return type;
}

Value lun_to_json(unsigned number, const Saved_Lun& lun) {
  Array acls;
  lun.acls >> acls;
  return Object{{"number", number},     {"type", lun.type == LIO_Backstore::block ? "block" : "file"},
                {"path", lun.path},     {"size", lun.size},
                {"serial", lun.serial}, {"filesystem", lun.filesystem},
                {"acls", acls},         {"settled", lun.settled}};
}

// Without the LUNs.
Object target_to_json(const Saved_Target& target) {
  Array portals;
  for (const Saved_Portal& portal : target.portals)
    portals.push_back(Object{{"all", portal.all}, {"address", portal.address}, {"port", portal.port}});
  return Object{{"type", lio_target_type_to_string(target.type)},
                {"name", target.name},
                {"tag", target.tag},
                {"mode", mode_text(target.mode)},
                {"enabled", target.enabled},
                {"portals", portals}};
}

Value released_to_json(const Released_Lun& released) {
  return Object{{"type", lio_target_type_to_string(released.type)},
                {"target", released.target},
                {"path", released.path},
                {"number", released.number},
                {"serial", released.serial},
                {"when", released.when}};
}

// Appends an element of a list.
void append(std::string& list, const std::string& element) {
  if (!list.empty()) list += ',';
  list += element;
}

const Object& as_object(const Value& value) {
  const Object* object = json_spirit::get_object(value);
  if (!object) throw json_spirit::JSON_Error("an element is no object");
  return *object;
}

Saved_Lun lun_from_json(const Object& object) {
  Saved_Lun lun;
  const std::string type = object_get<std::string>(object, "type");
  if (type != "block" && type != "file") throw json_spirit::JSON_Error("'" + type + "' is no backstore type");
  lun.type = type == "block" ? LIO_Backstore::block : LIO_Backstore::file;
  lun.path = object_get<std::string>(object, "path");
  lun.size = object_get<unsigned long>(object, "size");
  lun.serial = object_get<std::string>(object, "serial");
  lun.settled = object_get<bool>(object, "settled");
  if (object.count("filesystem")) lun.filesystem = object_get<std::string>(object, "filesystem");
  if (!(lun.acls << object_get<Array>(object, "acls"))) throw json_spirit::JSON_Error("an ACL is wrong");
  return lun;
}

Saved_Target target_from_json(const Object& object) {
  Saved_Target target;
  target.type = type_of(object_get<std::string>(object, "type"));
  target.name = object_get<std::string>(object, "name");
  target.tag = object_get<unsigned short>(object, "tag");
  target.mode = mode_of(object_get<std::string>(object, "mode"));
  target.enabled = object_get<bool>(object, "enabled");
  for (const Value& value : object_get<Array>(object, "portals")) {
    const Object& portal = as_object(value);
    target.portals.push_back({object_get<bool>(portal, "all"), object_get<std::string>(portal, "address"),
                              object_get<unsigned short>(portal, "port")});
  }
  for (const Value& value : object_get<Array>(object, "luns")) {
    const Object& lun = as_object(value);
    const unsigned number = object_get<unsigned short>(lun, "number");
    if (!target.luns.emplace(number, lun_from_json(lun)).second)
      throw json_spirit::JSON_Error("LUN " + std::to_string(number) + " is there twice");
  }
  return target;
}

Released_Lun released_from_json(const Object& object) {
  Released_Lun released;
  released.type = type_of(object_get<std::string>(object, "type"));
  released.target = object_get<std::string>(object, "target");
  released.path = object_get<std::string>(object, "path");
  released.number = object_get<unsigned short>(object, "number");
  released.serial = object_get<std::string>(object, "serial");
  released.when = object_get<long>(object, "when");
  return released;
}

bool same_target(const Saved_Target& target, LIO_Target_Type type, const std::string& name) {
  return target.type == type && target.name == name;
}

}  // namespace

bool Saved_Target::has_settled() const {
  return std::any_of(luns.begin(), luns.end(), [](const auto& lun) { return lun.second.settled; });
}

Saved_Target* Record::find(LIO_Target_Type type, const std::string& name, int tag) {
  for (Saved_Target& target : targets)
    if (same_target(target, type, name) && target.tag == tag) return &target;
  return nullptr;
}

Saved_Target& Record::find_or_add(LIO_Target_Type type, const std::string& name, int tag) {
  if (Saved_Target* found = find(type, name, tag)) return *found;
  targets.emplace_back();
  targets.back().type = type;
  targets.back().name = name;
  targets.back().tag = tag;
  return targets.back();
}

void Record::drop_target(LIO_Target_Type type, const std::string& name, std::time_t now) {
  for (Saved_Target& target : targets)
    while (same_target(target, type, name) && !target.luns.empty())
      drop_lun(target, target.luns.begin()->first, now);
  const auto gone = [&](const Saved_Target& target) { return same_target(target, type, name); };
  targets.erase(std::remove_if(targets.begin(), targets.end(), gone), targets.end());
}

void Record::drop_lun(Saved_Target& target, unsigned number, std::time_t now) {
  const auto lun = target.luns.find(number);
  if (lun == target.luns.end()) return;
  const std::string path = lun->second.path;
  const auto older = [&](const Released_Lun& one) {
    return one.type == target.type && one.target == target.name && one.path == path;
  };
  released.erase(std::remove_if(released.begin(), released.end(), older), released.end());
  released.push_back({target.type, target.name, path, number, lun->second.serial, now});
  target.luns.erase(lun);
}

std::string Record::serial_of(const std::string& path) const {
  for (const Saved_Target& target : targets)
    for (const auto& lun : target.luns)
      if (lun.second.path == path) return lun.second.serial;
  for (auto one = released.rbegin(); one != released.rend(); ++one)
    if (one->path == path) return one->serial;
  return "";
}

int Record::former_number(const Saved_Target& target, const std::string& path) const {
  for (const auto& lun : target.luns)
    if (lun.second.path == path) return static_cast<int>(lun.first);
  for (const Released_Lun& one : released)
    if (same_target(target, one.type, one.target) && one.path == path) return static_cast<int>(one.number);
  return -1;
}

std::set<unsigned> Record::kept_numbers(const Saved_Target& target, const std::string& path) const {
  std::set<unsigned> kept;
  for (const auto& lun : target.luns)
    if (lun.second.path != path) kept.insert(kept.end(), lun.first);
  for (const Released_Lun& one : released)
    if (same_target(target, one.type, one.target) && one.path != path) kept.insert(one.number);
  return kept;
}

void Record::prune(std::time_t now) {
  const auto stale = [now](const Released_Lun& one) {
    struct stat status;
    return now - one.when > KEEP_SECONDS && ::stat(one.path.c_str(), &status) != 0 && errno == ENOENT;
  };
  released.erase(std::remove_if(released.begin(), released.end(), stale), released.end());
  if (released.size() > MOST_RELEASED) released.erase(released.begin(), released.end() - MOST_RELEASED);
}

int choose_number(int former, const std::set<unsigned>& used, const std::set<unsigned>& kept) {
  if (former >= 0 && !used.count(static_cast<unsigned>(former))) return former;
  unsigned number = 0;
  // With many LUNs nearly all numbers up to the one wanted are kept, one after the other.
  for (const unsigned one : kept) {
    for (; number < one; ++number)
      if (!used.count(number)) return static_cast<int>(number);
    number = one + 1;
  }
  for (; number <= LAST_NUMBER; ++number)
    if (!used.count(number)) return static_cast<int>(number);
  for (number = 0; number <= LAST_NUMBER; ++number)
    if (!used.count(number)) return static_cast<int>(number);
  return -1;
}

bool Saved_Lun::operator==(const Saved_Lun& other) const {
  if (settled != other.settled || type != other.type || size != other.size || path != other.path ||
      serial != other.serial || filesystem != other.filesystem || acls.size() != other.acls.size())
    return false;
  for (std::size_t i = 0; i < acls.size(); ++i)
    if (acls[i].initiator != other.acls[i].initiator || acls[i].host_uuid != other.acls[i].host_uuid)
      return false;
  return true;
}

bool Released_Lun::operator==(const Released_Lun& other) const {
  return when == other.when && number == other.number && type == other.type && path == other.path &&
         target == other.target && serial == other.serial;
}

std::string Record_Writer::text(const Record& record) {
  std::string targets;
  for (const Saved_Target& target : record.targets) {
    std::string luns;
    auto& written = luns_[target.name + " " + std::to_string(target.tag)];
    auto at = written.begin();
    for (const auto& lun : target.luns) {
      while (at != written.end() && at->first < lun.first)
        at = written.erase(at);
      if (at == written.end() || at->first != lun.first)
        at = written.emplace_hint(at, lun.first, Written<Saved_Lun>());
      Written<Saved_Lun>& one = at->second;
      if (one.text.empty() || !(one.item == lun.second))
        one = {lun.second, JSON_Dump(lun_to_json(lun.first, lun.second))};
      append(luns, one.text);
      ++at;
    }
    written.erase(at, written.end());
    std::string head = JSON_Dump(target_to_json(target));
    head.pop_back();
    append(targets, head + ",\"luns\":[" + luns + "]}");
  }
  std::string released;
  released_.resize(record.released.size());
  for (std::size_t i = 0; i < released_.size(); ++i) {
    if (released_[i].text.empty() || !(released_[i].item == record.released[i]))
      released_[i] = {record.released[i], JSON_Dump(released_to_json(record.released[i]))};
    append(released, released_[i].text);
  }
  return "{\"version\":1,\"targets\":[" + targets + "],\"released\":[" + released + "]}";
}

bool record_from_json(const Value& value, Record& record, std::string& why) {
  try {
    const Object& object = as_object(value);
    const unsigned version = object_get<unsigned>(object, "version");
    if (version != 1) throw json_spirit::JSON_Error("version " + std::to_string(version) + " is not known");
    Record read;
    for (const Value& target : object_get<Array>(object, "targets"))
      read.targets.push_back(target_from_json(as_object(target)));
    for (const Value& one : object_get<Array>(object, "released"))
      read.released.push_back(released_from_json(as_object(one)));
    record = std::move(read);
    return true;
  } catch (const json_spirit::JSON_Error& error) {
    why = error.what();
    return false;
  }
}

bool Saved_File::identify(std::string& identity) const {
  struct stat status;
  if (::stat(path_.c_str(), &status) != 0) {
    identity = "none";
    return errno == ENOENT;
  }
  identity = std::to_string(status.st_dev) + " " + std::to_string(status.st_ino) + " " +
             std::to_string(status.st_size) + " " + std::to_string(status.st_mtim.tv_sec) + " " +
             std::to_string(status.st_mtim.tv_nsec);
  return true;
}

bool Saved_File::refresh() {
  std::string identity;
  if (!identify(identity))
    return LOG_FAILURE("Failed to read saved LIO configuration '%s': %m\n", path_.c_str());
  if (known_ && identity == identity_) return true;
  known_ = false;
  Record read;
  std::string text;
  if (identity != "none") {
    Value value;
    std::string why = "it is not JSON";
    if (!platform::read_file(path_, text))
      return LOG_FAILURE("Failed to read saved LIO configuration '%s': %m\n", path_.c_str());
    if (!loads_json(text, value) || !record_from_json(value, read, why))
      return LOG_FAILURE("Failed to read saved LIO configuration '%s': %s; mend the file or move it away\n",
                         path_.c_str(), why.c_str());
  }
  record_ = std::move(read);
  text_ = text;
  identity_ = identity;
  return known_ = true;
}

bool Saved_File::save() {
  const std::string text = writer_.text(record_);
  if (text == text_) return true;
  if (!platform::mkdir_p(platform::dirname_string(path_), 0700) ||
      !platform::write_file_atomically(path_, text, 0600)) {
    LOG_FAILURE("Failed to save LIO configuration '%s': %m\n", path_.c_str());
    return known_ = false;
  }
  text_ = text;
  return known_ = identify(identity_);
}

}  // namespace lio
