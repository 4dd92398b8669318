// An iSCSI initiator for the tests: logs in as a given initiator and then obeys lines on standard input.
//
//   iscsi_io INITIATOR PORTAL TARGET
//
// Answers one line to the login and to each command: "ok ..." or "failed WHY". The session lives until the
// input ends.
//
//   luns                            -> ok 0 1 ...
//   size LUN                        -> ok BLOCKS BLOCK_SIZE
//   serial LUN                      -> ok SERIAL
//   write LUN OFFSET LENGTH SEED    -> ok SHA256 of the bytes written, which SEED determines; then a flush
//   read LUN OFFSET LENGTH          -> ok SHA256 of what was read
//   trim LUN OFFSET LENGTH          -> ok
//   reserve LUN                     -> ok (for this session, until it ends)

#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Task = std::unique_ptr<scsi_task, decltype(&scsi_free_scsi_task)>;
using Context = std::unique_ptr<iscsi_context, int (*)(iscsi_context*)>;

constexpr std::uint32_t kChunk = 256 * 1024;

class Checksum {
 public:
  Checksum() : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
    EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr);
  }
  void add(const unsigned char* data, std::size_t size) { EVP_DigestUpdate(context_.get(), data, size); }
  std::string text() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_DigestFinal_ex(context_.get(), digest, &size);
    std::string out;
    char hex[3];
    for (unsigned int i = 0; i < size; ++i) {
      std::snprintf(hex, sizeof hex, "%02x", digest[i]);
      out += hex;
    }
    return out;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_;
};

class Session {
 public:
  Session(const std::string& initiator, const std::string& portal, const std::string& target)
      : context_(iscsi_create_context(initiator.c_str()), &iscsi_destroy_context) {
    if (!context_) {
      throw std::runtime_error("no initiator context");
    }
    iscsi_set_noautoreconnect(context_.get(), 1);
    iscsi_set_timeout(context_.get(), 120);
    iscsi_set_session_type(context_.get(), ISCSI_SESSION_NORMAL);
    if (iscsi_set_targetname(context_.get(), target.c_str()) != 0 ||
        iscsi_connect_sync(context_.get(), portal.c_str()) != 0 || iscsi_login_sync(context_.get()) != 0) {
      throw std::runtime_error(iscsi_get_error(context_.get()));
    }
  }

  ~Session() { iscsi_logout_sync(context_.get()); }

  std::string luns() {
    Task task = run([&] { return iscsi_reportluns_sync(context_.get(), 0, 16 * 1024); });
    auto* list = static_cast<scsi_reportluns_list*>(scsi_datain_unmarshall(task.get()));
    std::vector<unsigned> numbers(list->luns, list->luns + list->num);
    std::sort(numbers.begin(), numbers.end());
    std::string text;
    for (unsigned number : numbers) {
      text += (text.empty() ? "" : " ") + std::to_string(number);
    }
    return text;
  }

  std::string size(int lun) {
    Task task = run([&] { return iscsi_readcapacity16_sync(context_.get(), lun); });
    auto* capacity = static_cast<scsi_readcapacity16*>(scsi_datain_unmarshall(task.get()));
    return std::to_string(capacity->returned_lba + 1) + " " + std::to_string(capacity->block_length);
  }

  std::string serial(int lun) {
    constexpr int page = SCSI_INQUIRY_PAGECODE_UNIT_SERIAL_NUMBER;
    Task task = run([&] { return iscsi_inquiry_sync(context_.get(), lun, 1, page, 255); });
    return static_cast<scsi_inquiry_unit_serial_number*>(scsi_datain_unmarshall(task.get()))->usn;
  }

  std::string write(int lun, std::uint64_t offset, std::uint64_t length, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    Checksum checksum;
    std::vector<unsigned char> data(kChunk);
    each_chunk(lun, offset, length, [&](std::uint64_t block, std::uint32_t bytes, std::uint32_t block_size) {
      std::generate(data.begin(), data.begin() + bytes, [&] { return static_cast<unsigned char>(random()); });
      checksum.add(data.data(), bytes);
      run([&] {
        return iscsi_write16_sync(context_.get(), lun, block, data.data(), bytes, block_size, 0, 0, 0, 0, 0);
      });
    });
    run([&] { return iscsi_synchronizecache16_sync(context_.get(), lun, 0, 0, 0, 0); });
    return checksum.text();
  }

  std::string read(int lun, std::uint64_t offset, std::uint64_t length) {
    Checksum checksum;
    each_chunk(lun, offset, length, [&](std::uint64_t block, std::uint32_t bytes, std::uint32_t block_size) {
      Task task = run(
          [&] { return iscsi_read16_sync(context_.get(), lun, block, bytes, block_size, 0, 0, 0, 0, 0); });
      if (task->datain.size != static_cast<int>(bytes)) {
        throw std::runtime_error("short read at block " + std::to_string(block));
      }
      checksum.add(task->datain.data, bytes);
    });
    return checksum.text();
  }

  std::string trim(int lun, std::uint64_t offset, std::uint64_t length) {
    each_chunk(lun, offset, length, [&](std::uint64_t block, std::uint32_t bytes, std::uint32_t block_size) {
      unmap_list list{block, bytes / block_size};
      run([&] { return iscsi_unmap_sync(context_.get(), lun, 0, 0, &list, 1); });
    });
    return "";
  }

  std::string reserve(int lun) {
    run([&] { return iscsi_reserve6_sync(context_.get(), lun); });
    return "";
  }

 private:
  using Chunk_Action = std::function<void(std::uint64_t, std::uint32_t, std::uint32_t)>;

  // Runs a command until the unit attentions that wait for this session have been told; throws unless it is
  // good.
  Task run(const std::function<scsi_task*()>& command) {
    for (int attempt = 0;; ++attempt) {
      Task task(command(), &scsi_free_scsi_task);
      if (!task) {
        throw std::runtime_error(iscsi_get_error(context_.get()));
      }
      if (task->status == SCSI_STATUS_GOOD) {
        return task;
      }
      if (attempt == 5 || task->status != SCSI_STATUS_CHECK_CONDITION ||
          task->sense.key != SCSI_SENSE_UNIT_ATTENTION) {
        char sense[32];
        std::snprintf(sense, sizeof sense, " %x/%04x", task->sense.key, task->sense.ascq);
        throw std::runtime_error("status " + std::to_string(task->status) + sense + " " +
                                 iscsi_get_error(context_.get()));
      }
    }
  }

  void each_chunk(int lun, std::uint64_t offset, std::uint64_t length, const Chunk_Action& action) {
    std::istringstream answer(size(lun));
    std::uint64_t blocks = 0;
    std::uint32_t block_size = 0;
    answer >> blocks >> block_size;
    if (block_size == 0 || offset % block_size != 0 || length % block_size != 0) {
      throw std::runtime_error("offset and length are no multiples of the block size");
    }
    for (std::uint64_t done = 0; done < length;) {
      auto bytes = static_cast<std::uint32_t>(std::min<std::uint64_t>(kChunk, length - done));
      action((offset + done) / block_size, bytes, block_size);
      done += bytes;
    }
  }

  Context context_;
};

std::string obey(Session& session, const std::string& line) {
  std::istringstream words(line);
  std::string command;
  int lun = 0;
  std::uint64_t offset = 0, length = 0, seed = 0;
  words >> command >> lun >> offset >> length >> seed;
  if (command == "luns") return session.luns();
  if (command == "size") return session.size(lun);
  if (command == "serial") return session.serial(lun);
  if (command == "write") return session.write(lun, offset, length, seed);
  if (command == "read") return session.read(lun, offset, length);
  if (command == "trim") return session.trim(lun, offset, length);
  if (command == "reserve") return session.reserve(lun);
  throw std::runtime_error("unknown command");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: iscsi_io INITIATOR PORTAL TARGET\n";
    return 2;
  }
  try {
    Session session(argv[1], argv[2], argv[3]);
    std::cout << "ok" << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
      try {
        const std::string answer = obey(session, line);
        std::cout << "ok " << answer << std::endl;
      } catch (const std::exception& error) {
        std::cout << "failed " << error.what() << std::endl;
      }
    }
  } catch (const std::exception& error) {
    std::cout << "failed " << error.what() << std::endl;
    return 1;
  }
  return 0;
}
