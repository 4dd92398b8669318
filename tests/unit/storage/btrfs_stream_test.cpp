#include "backup/pools/scsipool/btrfs_stream.h"

#include <gtest/gtest.h>

namespace {

using scsi_pool::Btrfs_Stream_Head;

std::string little(unsigned value, int size) {
  std::string bytes;
  for (int i = 0; i < size; ++i)
    bytes += static_cast<char>(value >> 8 * i);
  return bytes;
}

std::string attribute(unsigned kind, const std::string& value) {
  return little(kind, 2) + little(static_cast<unsigned>(value.size()), 2) + value;
}

std::string stream(unsigned command, const std::string& attributes) {
  return std::string("btrfs-stream", 13) + little(1, 4) +
         little(static_cast<unsigned>(attributes.size()), 4) + little(command, 2) + little(77, 4) +
         attributes + "more";
}

TEST(Btrfs_Stream, SaysWhatItIsOf) {
  const std::string uuid =
      "\x01\x23\x45\x67\x89\xab\xcd\xef"
      "12345678";
  const std::string whole = attribute(15, "snap") + attribute(1, uuid) + attribute(2, "generation");
  std::string name, found;
  for (const unsigned command : {1u, 2u}) {
    const std::string bytes = stream(command, whole);
    for (std::size_t size = 0; size + 4 < bytes.size(); ++size)
      EXPECT_EQ(scsi_pool::read_btrfs_stream_head(bytes.substr(0, size), name, found),
                Btrfs_Stream_Head::SHORT)
          << size;
    EXPECT_EQ(scsi_pool::read_btrfs_stream_head(bytes, name, found), Btrfs_Stream_Head::KNOWN);
    EXPECT_EQ(name + " " + found, "snap 01234567-89ab-cdef-3132-333435363738");
  }
  std::string longer = stream(1, whole);
  longer[27 + 2] = '\x7f';  // the path claims more than the command holds
  for (const std::string& bytes :
       {std::string("btrfs-strean and on"), std::string("\0\0\0\0zfs", 7), stream(3, whole), longer,
        stream(1, attribute(15, "snap")), stream(1, attribute(15, "snap") + attribute(1, "short"))})
    EXPECT_EQ(scsi_pool::read_btrfs_stream_head(bytes, name, found), Btrfs_Stream_Head::OTHER);
}

}  // namespace
