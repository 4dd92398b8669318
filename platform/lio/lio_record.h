#pragma once
// The saved target configuration in memory and in its file. Not thread-safe: used under the change lock.

#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/json/json_spirit.h"
#include "platform/lio/lio_backstore.h"
#include "platform/lio/lio_types.h"

namespace lio {

struct Saved_Lun {
  LIO_Backstore::Type type = LIO_Backstore::file;
  std::string path;
  unsigned long size = 0;
  std::string serial;
  // Which filesystem the file is on; empty when not known, and for a device.
  std::string filesystem;
  LIO_ACLs acls;
  // False from the LUN's making until its port group is enabled: a crash in between leaves an unfinished
  // export.
  bool settled = false;

  bool operator==(const Saved_Lun& other) const;
};

struct Saved_Portal {
  bool all = false;
  std::string address;  // empty with `all`
  unsigned short port = 0;
};

enum class Mode { fresh, demo, acl };

struct Saved_Target {
  LIO_Target_Type type = TYPE_UNKNOWN;
  std::string name;
  int tag = 1;
  Mode mode = Mode::fresh;
  bool enabled = false;
  std::vector<Saved_Portal> portals;
  std::map<unsigned, Saved_Lun> luns;  // by number

  bool has_settled() const;
};

// What a volume had when it was last exported, so that it gets the same again.
struct Released_Lun {
  LIO_Target_Type type = TYPE_UNKNOWN;
  std::string target;
  std::string path;
  unsigned number = 0;
  std::string serial;
  std::time_t when = 0;

  bool operator==(const Released_Lun& other) const;
};

struct Record {
  std::vector<Saved_Target> targets;
  std::vector<Released_Lun> released;

  Saved_Target* find(LIO_Target_Type type, const std::string& name, int tag);
  Saved_Target& find_or_add(LIO_Target_Type type, const std::string& name, int tag);
  // Forgets a target; its LUNs become released ones.
  void drop_target(LIO_Target_Type type, const std::string& name, std::time_t now);
  // The LUN becomes a released one.
  void drop_lun(Saved_Target& target, unsigned number, std::time_t now);
  // The serial number that a path has or had; empty when there is none.
  std::string serial_of(const std::string& path) const;
  // The number that the path had in the target, or -1; and the numbers kept there for other paths.
  int former_number(const Saved_Target& target, const std::string& path) const;
  std::set<unsigned> kept_numbers(const Saved_Target& target, const std::string& path) const;
  // Forgets released LUNs whose volume has been gone for an hour, and the oldest of too many.
  void prune(std::time_t now);
};

// The lowest number that is neither used nor kept for another volume, the former one first; when nothing else
// is left one that is kept. -1 when all 65535 are used.
int choose_number(int former, const std::set<unsigned>& used, const std::set<unsigned>& kept);

// The record as JSON text. What has not changed since the last time is not put into words again: with many
// LUNs that would cost more than the kernel's part of an export.
class Record_Writer {
 public:
  std::string text(const Record& record);

 private:
  template <typename T>
  struct Written {
    T item;
    std::string text;
  };
  std::map<std::string, std::map<unsigned, Written<Saved_Lun>>> luns_;  // by target and number
  std::vector<Written<Released_Lun>> released_;
};

// False, with `record` untouched, when a member is missing or wrong; `why` tells which.
bool record_from_json(const json_spirit::Value& value, Record& record, std::string& why);

// The record with its file. Another process may have written the file meanwhile, hence refresh().
class Saved_File {
 public:
  explicit Saved_File(std::string path) : path_(std::move(path)) {}

  Record& record() { return record_; }
  // Whether the record is what the file has, but for changes not saved yet.
  bool known() const { return known_; }
  // Reads the file again if it is not the one that was read or written last. False, with a message and an
  // unknown record, when it cannot be read or is damaged: nothing may be changed then.
  bool refresh();
  // Writes the record if it differs from the file (temporary file, 0600, fsync, rename).
  bool save();

 private:
  bool identify(std::string& identity) const;

  std::string path_;
  bool known_ = false;
  std::string identity_;
  std::string text_;
  Record record_;
  Record_Writer writer_;
};

}  // namespace lio
