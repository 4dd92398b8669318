#pragma once
// Who this host is to its peers. Any thread.

#include <mutex>
#include <string>

class Host_Manager {
 public:
  static Host_Manager* instance();

  // Reads the access key that this host and its peers share from a file: one line of 16 to 512 printable
  // characters without blanks; the file may be readable by its owner and group only. False, with the reason
  // in `why` and the former key kept, otherwise.
  bool load_access_key(const std::string& path, std::string& why);

  // Empty when no key is loaded.
  std::string access_key() const;
  // Compares in constant time. False when no key is loaded.
  bool access_key_matches(const std::string& key) const;

  // The host's UUID, made from the machine id. Empty when there is none.
  std::string id() const;

 private:
  mutable std::mutex mutex_;
  std::string access_key_;
};
