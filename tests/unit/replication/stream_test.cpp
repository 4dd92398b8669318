// One snapshot on its way: the sender, the receiver and the registry of receiving tools.

#include <ace/Log_Record.h>

#include <fstream>

#include "backup/pools/scsipool/receive_process_manager.h"
#include "backup/pools/scsipool/scsi_pool_receiver.h"
#include "backup/pools/scsipool/scsi_pool_sender.h"
#include "backup/pools/scsipool/stream_tool_log.h"
#include "platform/base/file.h"
#include "platform/http/client_io.h"
#include "tests/unit/replication/replication_fixture.h"

namespace {

using scsi_pool::Dataset_Manager;
using scsi_pool::Receiver_Process_Manager;
using scsi_pool::SCSI_Pool_Receiver;
using scsi_pool::SCSI_Pool_Sender;

class Streams : public Replication_Fixture {
 protected:
  Streams() {
    dataset_ = Dataset_Manager(POOL);
    dataset_.reset(Dataset_Manager::TYPE_VOLUME, A);
  }
  ~Streams() override {
    Receiver_Process_Manager::close_instance();
    SCSI_Pool_Receiver::end_limit = ACE_Time_Value(60);
  }
  bool send(const std::string& snapshot, ACE_UINT64& size) {
    Client_IO io;
    EXPECT_TRUE(io.connect(URI("http", "127.0.0.1", peer_.port(), "/receive/"), {}));
    SCSI_Pool_Sender sender(POOL, dataset_);
    const bool done = sender.send(io, snapshot, {});
    size = sender.data_size();
    return done;
  }
  // A tool that takes as many bytes into a file, then does `after`.
  void tool(int bytes, const std::string& after = "") {
    std::ofstream(folder_ / "tool") << "head -c " << bytes << " > " << (folder_ / "got") << "\n"
                                    << after << "\n";
    pool().receive_command = "sh " + (folder_ / "tool");
  }
  std::string got() {
    std::string text;
    platform::read_file(folder_ / "got", text);
    return text;
  }
  ACE_Process_Ex* process() { return Receiver_Process_Manager::instance()->get(POOL, dataset_, id(1), true); }

  Temp_Dir folder_;
  Dataset_Manager dataset_;
};

TEST_F(Streams, CarryWhatTheToolPrintsUnderTheSnapshotsName) {
  ASSERT_TRUE(rows().add_snapshot(id(1), A, POOL, "", 70000, true, nullptr));
  ASSERT_TRUE(rows().add_snapshot(id(2), A, POOL, "", 65536, false, nullptr));
  pool().volumes[A].snapshots = {id(1), id(2)};
  struct Case {
    int snapshot;
    const char* command;
    std::size_t bytes;
    const char* name;
  };
  for (const Case& one : {Case{1, "printf abc", 3, "/recycle/4464"}, Case{2, "true", 0, "/norecycle/0"},
                          Case{1, "head -c 3000001 /dev/zero", 3000001, "/recycle/4464"},
                          Case{2, "false", 0, "/norecycle/0"}}) {
    SCOPED_TRACE(one.command);
    pool().send_command = one.command;
    ACE_UINT64 size = 99;
    EXPECT_TRUE(send(id(one.snapshot), size)) << log_.dump();
    EXPECT_EQ(size, one.bytes);
    EXPECT_EQ(peer_.received.back().path, "/receive/" + id(one.snapshot) + one.name);
    EXPECT_EQ(peer_.received.back().body.size(), one.bytes);
    EXPECT_TRUE(peer_.received.back().whole);
  }
  EXPECT_TRUE(log_.contains(LM_NOTICE, "The send process ended with status 1"));
}

TEST_F(Streams, AreNotSentWithoutASnapshotOrATool) {
  add_snapshots(A, 1, 1);
  ACE_UINT64 size = 0;
  EXPECT_FALSE(send(id(2), size));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to send scsi pool: get snapshot info error\n"));
  EXPECT_TRUE(peer_.requests.empty());
  pool().send_command = "/no/such/tool";
  EXPECT_FALSE(send(id(1), size));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to send volume snapshot: spawn error\n")) << log_.dump();
  pool().send_command = "printf abc";
  peer_.refuse["POST"] = 2;  // the cut one may come late
  EXPECT_FALSE(send(id(1), size));
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to send snapshot: failed to close client io, refused\n"))
      << log_.dump();
  for (const auto& one : peer_.received)
    EXPECT_FALSE(one.whole);
}

TEST_F(Streams, ReplaceTheSnapshotThatAnEarlierOneLeft) {
  tool(6);
  pool().volumes[A].snapshots = {id(1)};
  SCSI_Pool_Receiver receiver(POOL, dataset_);
  EXPECT_FALSE(receiver.receive("x", 1));
  EXPECT_TRUE(log_.contains(LM_EMERGENCY, "proc_ is NULL"));
  EXPECT_FALSE(receiver.open("", true));
  ASSERT_TRUE(receiver.open(id(1), true)) << log_.dump();
  EXPECT_TRUE(pool().volumes[A].snapshots.empty());
  EXPECT_TRUE(receiver.receive("abc", 3) && receiver.receive(nullptr, 0) && receiver.receive("def", 3));
  EXPECT_EQ(Receiver_Process_Manager::instance()->receive_size(POOL, dataset_, id(1)), 6u);
  EXPECT_TRUE(receiver.close()) << log_.dump();
  EXPECT_EQ(got(), "abcdef");
  EXPECT_EQ(pool().syncs, 1u);
}

TEST_F(Streams, AreOnlyGoodWhenTheToolEndedWellAndTheDataIsOnDisk) {
  struct Case {
    int bytes;
    const char* after;
    bool sync;
    const char* error;
  };
  for (const Case& one :
       {Case{3, "exit 3", true, "Failed to receive snapshot data end: process return false\n"},
        Case{3, "kill -9 $$", true, "Failed to receive snapshot data end: process return false\n"},
        Case{4, "", true, "Failed to receive snapshot data end: wait process end error, "},
        Case{3, "", false, "Failed to receive snapshot data end: sync error\n"}}) {
    SCOPED_TRACE(one.error);
    tool(one.bytes, one.after);
    SCSI_Pool_Receiver::end_limit = one.bytes > 3 ? ACE_Time_Value(0, 300000) : ACE_Time_Value(30);
    if (!one.sync) pool().failing = {"sync"};
    log_.clear();
    SCSI_Pool_Receiver receiver(POOL, dataset_);
    ASSERT_TRUE(receiver.open(id(1), true));
    const pid_t pid = process()->pid();
    EXPECT_TRUE(receiver.receive("abc", 3));
    EXPECT_FALSE(receiver.close());
    EXPECT_TRUE(log_.contains(LM_ERROR, one.error)) << log_.dump();
    EXPECT_TRUE(Receiver_Process_Manager::instance()->remove(POOL, dataset_, id(1)));
    EXPECT_EQ(Receiver_Process_Manager::instance()->receive_size(POOL, dataset_, id(1)), 0u);
    EXPECT_NE(::kill(pid, 0), 0);  // reaped
  }
}

TEST_F(Streams, NeverGoToAToolThatWasFedBefore) {
  tool(6);
  SCSI_Pool_Receiver first(POOL, dataset_), second(POOL, dataset_), third(POOL, dataset_);
  ASSERT_TRUE(first.open(id(1), true));
  ACE_Process_Ex* const process_of_first = process();
  const pid_t pid = process_of_first->pid();
  ASSERT_TRUE(second.open(id(1), true));
  EXPECT_EQ(process()->pid(), pid);  // still fresh
  ASSERT_TRUE(second.receive("abc", 3));
  ASSERT_TRUE(third.open(id(1), true));
  EXPECT_NE(process()->pid(), pid);
  EXPECT_NE(::kill(pid, 0), 0);
  EXPECT_FALSE(second.receive("def", 3) && second.close());  // its tool was taken away
  EXPECT_TRUE(third.receive("ABCDEF", 6));
  EXPECT_TRUE(third.close()) << log_.dump();
  EXPECT_EQ(got(), "ABCDEF");
  EXPECT_NE(process()->pid(), pid);  // ended: a new one
}

}  // namespace
