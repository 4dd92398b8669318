// Which snapshots a job gets, and what becomes of jobs.

#include "backup/pools/scsipool/sqlite/replicate_job_database.h"
#include "platform/database/database.h"
#include "tests/unit/replication/replication_fixture.h"

namespace {

class Jobs : public Replication_Fixture {
 protected:
  Job_Manager& jobs() { return *Job_Manager::instance(); }
  ACE_UINT64 queued() {
    ACE_UINT64 messages = 0;
    EXPECT_TRUE(Queue_Manager::instance()->length("scsi_pool_replicate", messages));
    return messages;
  }
  // As if the process had been killed before it was queued.
  void drop_newest_message() {
    const auto connection = database::sql::Legacy_Manager::instance()->get_connection_r("scsipoold");
    database::sql::Delete_SQL statement("queue_message");
    statement.where("id = (SELECT max(id) FROM queue_message)");
    ASSERT_TRUE(connection.get() != nullptr && connection->execute(statement));
  }
};

TEST_F(Jobs, SelectTheNewestAndWhatIsNotMarked) {
  add_snapshots(A, 1, 2);
  add_snapshots(A, 3, 3, false);
  add_snapshots(A, 4, 5);
  struct Case {
    ACE_UINT16 retention;
    std::vector<int> sent;
  };
  std::map<int, ACE_UINT16> references;
  for (const Case& one :
       {Case{2, {3, 4, 5}}, Case{0, {3}}, Case{4, {2, 3, 4, 5}}, Case{65535, {1, 2, 3, 4, 5}}}) {
    SCOPED_TRACE(one.retention);
    retention(one.retention);
    Job_var job = submit({Object{{"lun_uuid", id(90)}}, Object{{"other", 1}}, 5, Object{{"lun_uuid", A}}});
    EXPECT_EQ(job->job_def().snapshots(), (Array{Object{{"lun_uuid", A}, {"snapshots", ids(one.sent)}}}));
    for (const int number : one.sent)
      ++references[number];
    for (int number = 1; number <= 5; ++number)
      EXPECT_EQ(standby(id(number)), references[number]) << number;
    EXPECT_EQ(job->job_state(), Job::JOB_STATE_PENDING);
  }
  EXPECT_TRUE(
      log_.has(LM_ERROR, "Failed to add " + POOL + "/" + id(90) + " to replicate job: lun not exist\n"));
  EXPECT_EQ(queued(), 4u);
}

TEST_F(Jobs, NeedADatasetWithSnapshots) {
  add_filesystem(FS);
  for (const char* key : {"lun_uuid", "filesystem_name"}) {
    for (const std::string& name : {id(90), A, FS}) {
      Definition def = definition({Object{{key, name}}});
      EXPECT_FALSE(jobs().submit_job(def)) << key << name;
      EXPECT_TRUE(log_.has(LM_ERROR, "Failed to add SCSI pool replicate job: no dataset to replicate\n"));
      log_.clear();
    }
  }
  EXPECT_EQ(queued(), 0u);
  retention(0);
  add_snapshots(FS, 1, 2);  // nothing selected, but a job nevertheless
  Job_var job = submit({Object{{"filesystem_name", FS}}});
  EXPECT_EQ(job->job_def().snapshots(), (Array{Object{{"filesystem_name", FS}, {"snapshots", Array{}}}}));
}

TEST_F(Jobs, CanBeRepeatedAndRemovedByTheirState) {
  add_snapshots(A, 1, 2);
  for (const auto& one :
       {std::make_pair(Job::JOB_STATE_PENDING, "-r"), std::make_pair(Job::JOB_STATE_RUNNING, "--"),
        std::make_pair(Job::JOB_STATE_SUCCEEDED, "dr"), std::make_pair(Job::JOB_STATE_FAILED, "dr")}) {
    SCOPED_TRACE(one.first);
    Job_var job = submit(lun(A));
    const ACE_UINT16 before = standby(id(1));
    store(job, one.first);
    const ACE_UINT64 messages = queued();
    const bool redo = one.second[0] == 'd', remove = one.second[1] == 'r';
    EXPECT_EQ(jobs().redo_job(job), redo);
    EXPECT_EQ(queued(), messages + (redo ? 1 : 0));
    EXPECT_EQ(standby(id(1)), before + (redo ? 1 : 0));
    EXPECT_EQ(newest()->job_state(), redo ? Job::JOB_STATE_PENDING : one.first);
    EXPECT_EQ(jobs().remove_job(job), remove);
    EXPECT_EQ(jobs().find(job->id()).null(), remove);
    Definition def;
    EXPECT_EQ(scsi_pool::Replicate_Job_Database().get_job_def_info(job->job_def().id(), def), !remove);
    if (!remove) {
      EXPECT_FALSE(jobs().start_job(job));
    }
  }
  EXPECT_TRUE(log_.has(LM_ERROR, "Failed to start SCSI pool replicate job: job is running\n"));
}

TEST_F(Jobs, ThatARestartCutHaveFailedAndAreReported) {
  add_snapshots(A, 1, 1);
  Job_var one = submit(lun(A)), two = submit(lun(A)), waiting = submit(lun(A));
  store(one, Job::JOB_STATE_RUNNING);
  store(two, Job::JOB_STATE_RUNNING);
  ASSERT_TRUE(jobs().open());
  EXPECT_EQ(jobs().find(one->id())->job_state(), Job::JOB_STATE_FAILED);
  EXPECT_EQ(jobs().find(two->id())->job_state(), Job::JOB_STATE_FAILED);
  EXPECT_EQ(jobs().find(waiting->id())->job_state(), Job::JOB_STATE_PENDING);
  ASSERT_EQ(alerts_.size(), 2u);
  EXPECT_EQ(alerts_[0]["message"], "Job abort");
  EXPECT_EQ(alerts_[0]["target_pool_name"], "there");
  EXPECT_EQ(alert_ids_[1], 0x7000002040800004u);
  EXPECT_EQ(standby(id(1)), 3u);
}

// After a crash: one was cut, one had ended, one waits in the queue, one did not get there.
TEST_F(Jobs, AreQueuedOnceAndHoldTheirReferencesAfterACrash) {
  add_snapshots(A, 1, 2);
  Job_var cut = submit(lun(A)), ended = submit(lun(A)), queued_one = submit(lun(A)), lost = submit(lun(A));
  store(cut, Job::JOB_STATE_FAILED);
  store(ended, Job::JOB_STATE_SUCCEEDED);
  Queue_Manager* queue = Queue_Manager::instance();
  std::vector<std::string> before, after;
  ASSERT_TRUE(queue->texts("scsi_pool_replicate", before));
  ASSERT_EQ(before.size(), 4u);
  drop_newest_message();
  for (int times = 0; times < 2; ++times) {
    ASSERT_TRUE(jobs().recover_jobs());
    after.clear();
    ASSERT_TRUE(queue->texts("scsi_pool_replicate", after));
    EXPECT_EQ(after, before);
    EXPECT_EQ(standby(id(1)), 3u);
    EXPECT_EQ(standby(id(2)), 3u);
    EXPECT_EQ(jobs().find(cut->id())->job_state(), Job::JOB_STATE_PENDING);
    EXPECT_EQ(jobs().find(ended->id())->job_state(), Job::JOB_STATE_SUCCEEDED);
  }
}

}  // namespace
