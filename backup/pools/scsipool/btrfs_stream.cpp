#include "backup/pools/scsipool/btrfs_stream.h"

#include <ace/Basic_Types.h>

#include <algorithm>
#include <cstdio>

namespace scsi_pool {

namespace {

// The stream begins with this, a closing zero byte included, and a version of 4 bytes. A command is its
// length (4 bytes), kind (2) and checksum (4), and then attributes of kind (2), length (2) and value. All
// numbers have their lowest byte first.
const std::string MAGIC("btrfs-stream", 13);
constexpr std::size_t COMMAND = 17, ATTRIBUTES = COMMAND + 10;
constexpr unsigned MAKE_SUBVOLUME = 1, MAKE_SNAPSHOT = 2;
constexpr unsigned ATTRIBUTE_UUID = 1, ATTRIBUTE_PATH = 15;
constexpr std::size_t LONGEST = 16 * 1024;

std::size_t number(const std::string& bytes, std::size_t at, std::size_t size) {
  std::size_t value = 0;
  for (std::size_t i = size; i > 0; --i)
    value = value << 8 | static_cast<unsigned char>(bytes[at + i - 1]);
  return value;
}

std::string uuid_text(const std::string& value) {
  std::string text;
  char digits[3];
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(static_cast<unsigned char>(value[i])));
    text += digits;
  }
  return text;
}

}  // namespace

Btrfs_Stream_Head read_btrfs_stream_head(const std::string& bytes, std::string& name, std::string& uuid) {
  if (bytes.compare(0, MAGIC.size(), MAGIC, 0, std::min(bytes.size(), MAGIC.size())) != 0)
    return Btrfs_Stream_Head::OTHER;
  if (bytes.size() < ATTRIBUTES) return Btrfs_Stream_Head::SHORT;
  const std::size_t end = ATTRIBUTES + number(bytes, COMMAND, 4);
  const std::size_t kind = number(bytes, COMMAND + 4, 2);
  if ((kind != MAKE_SUBVOLUME && kind != MAKE_SNAPSHOT) || end > LONGEST) return Btrfs_Stream_Head::OTHER;
  if (bytes.size() < end) return Btrfs_Stream_Head::SHORT;
  name.clear();
  uuid.clear();
  for (std::size_t at = ATTRIBUTES; at + 4 <= end;) {
    const std::size_t attribute = number(bytes, at, 2), size = number(bytes, at + 2, 2);
    at += 4;
    if (at + size > end) return Btrfs_Stream_Head::OTHER;
    if (attribute == ATTRIBUTE_PATH) name = bytes.substr(at, size);
    if (attribute == ATTRIBUTE_UUID && size == 16) uuid = uuid_text(bytes.substr(at, size));
    at += size;
  }
  return name.empty() || uuid.empty() ? Btrfs_Stream_Head::OTHER : Btrfs_Stream_Head::KNOWN;
}

}  // namespace scsi_pool
