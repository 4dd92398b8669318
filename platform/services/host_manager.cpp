#include "platform/services/host_manager.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/base/file.h"
#include "platform/base/uuid.h"

namespace {

bool is_key(const std::string& text) {
  const bool printable = std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f; });
  return printable && text.size() >= 16 && text.size() <= 512;
}

}  // namespace

Host_Manager* Host_Manager::instance() {
  static Host_Manager manager;
  return &manager;
}

bool Host_Manager::load_access_key(const std::string& path, std::string& why) {
  struct stat info {};
  std::string text;
  if (stat(path.c_str(), &info) != 0 || !platform::read_file(path, text)) {
    why = "cannot read the access key file '" + path + "': " + std::strerror(errno);
    return false;
  }
  if ((info.st_mode & (S_IRWXO | S_IWGRP)) != 0) {
    why = "the access key file '" + path + "' is open to others; make its mode 0600";
    return false;
  }
  const std::size_t end = text.find_last_not_of("\r\n");
  text.resize(end == std::string::npos ? 0 : end + 1);
  if (!is_key(text)) {
    why = "the access key file '" + path + "' does not hold one line of 16 to 512 printable characters";
    return false;
  }
  const std::lock_guard<std::mutex> guard(mutex_);
  access_key_ = text;
  return true;
}

std::string Host_Manager::access_key() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return access_key_;
}

bool Host_Manager::access_key_matches(const std::string& key) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (access_key_.empty() || key.size() != access_key_.size()) return false;
  return CRYPTO_memcmp(key.data(), access_key_.data(), key.size()) == 0;
}

std::string Host_Manager::id() const {
  std::string machine;
  if (!platform::read_file("/etc/machine-id", machine) || machine.size() < 32) return "";
  // The machine id itself is not to be shown to others.
  return platform::uuid_v5("6ba7b810-9dad-11d1-80b4-00c04fd430c8", "scsipool-host-" + machine.substr(0, 32));
}
