#pragma once
// Reading and writing the properties of one ZFS dataset: a pool's root, filesystem, volume or snapshot.
//
// Starting the tool is what costs, not the property: the first read fetches all properties with one
// `zfs get -Hp`, and reads are answered from it until a property is written. Names and values travel as
// arguments, never through a shell. A tool run that only reads is given a minute, because a suspended pool
// blocks it for ever. One thread at a time.

#include <ace/Basic_Types.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

// What has properties. The last argument of each operation says whether a failure is worth a log line.
class Property {
 public:
  virtual ~Property() = default;

  // The value as the tool prints it; "-" where the property has none.
  virtual bool get_prop(const char* name, std::string& value, bool log) const = 0;
  // "on" and "yes" are true, "off" and "no" are false. `mounted` of what cannot be mounted is false and
  // `readonly` of a snapshot true, although ZFS has no value for either.
  virtual bool get_prop(const char* name, bool& value, bool log) const = 0;
  // A decimal number, exact up to 2^64-1.
  virtual bool get_prop(const char* name, ACE_UINT64& value, bool log) const = 0;

  virtual bool set_prop(const char* name, const char* value, bool log) = 0;
  // A quota of 0 is written as "none", the only form that ZFS takes.
  virtual bool set_prop(const char* name, ACE_UINT64 value, bool log) = 0;
};

class ZFS_Dataset : public Property {
 public:
  using Values = std::vector<std::pair<std::string, std::string>>;

  // Nothing is run. `log`: see set_log.
  ZFS_Dataset(const std::string& dataset, bool log);

  // Reads the dataset's properties now; false when there is no such dataset (or it cannot be read).
  bool open();

  // Leaves the reading to the first use, which then behaves as an open() there would. When the kernel shows
  // that the dataset's pool is not imported, the accessor is closed at once and stays so.
  void open_when_needed();

  // Is it open? Reads what open_when_needed() has put off.
  explicit operator bool() const;

  // Its own messages on and off. They give the tool's words; the caller logs what failed for it.
  void set_log(bool log) { log_ = log; }

  const std::string& name() const { return dataset_; }

  bool get_prop(const char* name, std::string& value, bool log) const override;
  bool get_prop(const char* name, bool& value, bool log) const override;
  bool get_prop(const char* name, ACE_UINT64& value, bool log) const override;
  bool set_prop(const char* name, const char* value, bool log) override;
  bool set_prop(const char* name, ACE_UINT64 value, bool log) override;

  // Sets all of `values`, in order, with one run of the tool where that succeeds. False names in `failed` the
  // first that was refused; those before it are set.
  bool set_props(const Values& values, std::string& failed);

 private:
  enum class State { closed, pending, open };

  bool load() const;
  bool read(const std::string& property, std::map<std::string, std::string>& values) const;
  bool write(const Values& values);

  std::string dataset_;
  bool log_;
  mutable State state_ = State::closed;
  mutable bool fresh_ = false;
  mutable std::map<std::string, std::string> values_;
};
