// Replication jobs: the records, their events and how they are stored.
#include "backup/pools/scsipool/replicate_job.h"

#include <functional>

#include "backup/pools/scsipool/sqlite/replicate_job_database.h"
#include "platform/base/uuid.h"
#include "platform/services/pool_replicate_manager.h"
#include "tests/unit/catalog/catalog_fixture.h"

namespace {

using scsi_pool::Replicate_Job;
using scsi_pool::Replicate_Job_Database;
using scsi_pool::Replicate_Job_Definition;
using Update_SQL = database::sql::Update_SQL;

class Recording_Sink : public Event_Sink {
 public:
  Recording_Sink() { Pool_Replicate_Manager::instance()->set_sink(this); }
  ~Recording_Sink() override { Pool_Replicate_Manager::instance()->set_sink(nullptr); }

  bool put_event(const Replicate_Event& event) override {
    events.push_back(event.to_object());
    return true;
  }
  bool put_alert(ACE_UINT64 id, const json_spirit::Object&, const char*, const char*) override {
    alert = id;
    return true;
  }
  bool create_job(json_spirit::Value& request) override {
    request["job_id"] = 7;
    return true;
  }

  json_spirit::Array events;
  ACE_UINT64 alert = 0;
};

Replicate_Job make_job(Replicate_Job::Job_State state) {
  Replicate_Job job(5);
  job.job_def().replicate_job_id(77);
  job.job_def().replicate_task_id("task");
  job.job_state(state);
  job.start_time(1000);
  job.end_time(2000);
  job.data_size(600);
  job.error_code(-3);
  job.error_message("broken");
  return job;
}

TEST(Replicate_Job, state_keys) {
  for (const char* key : {"unknown", "pending", "running", "succeeded", "failed"})
    EXPECT_EQ(Replicate_Job::state_value_to_key(Replicate_Job::state_key_to_value(key)), key);
  for (const char* key : {"Running", "runnin", "running ", ""})
    EXPECT_EQ(Replicate_Job::state_key_to_value(key), Replicate_Job::JOB_STATE_UNKNOWN) << key;
}

TEST(Replicate_Job, defaults_and_reset) {
  Replicate_Job_Definition def;
  def.retry(1);
  def.replicate_job_id(3);
  def.snapshots({1});
  def.reset();
  EXPECT_EQ(def.retry(), 5);
  EXPECT_EQ(def.replicate_job_id(), -1);
  EXPECT_TRUE(def.snapshots().empty());
  const Replicate_Job job(9);
  EXPECT_EQ(job.id(), 9);
  EXPECT_EQ(job.job_state(), Replicate_Job::JOB_STATE_UNKNOWN);
  EXPECT_EQ(job.progress() + job.create_time() + job.start_time() + job.end_time() + job.error_code(), 0);
  EXPECT_FALSE(job.invalid());
}

TEST(Replicate_Job, what_a_state_allows) {
  const struct {
    Replicate_Job::Job_State state;
    bool start, redo;
  } cases[] = {{Replicate_Job::JOB_STATE_UNKNOWN, true, false},
               {Replicate_Job::JOB_STATE_PENDING, true, false},
               {Replicate_Job::JOB_STATE_RUNNING, false, false},
               {Replicate_Job::JOB_STATE_SUCCEEDED, true, true},
               {Replicate_Job::JOB_STATE_FAILED, true, true}};
  for (const auto& one : cases) {
    Replicate_Job job(1);
    job.job_state(one.state);
    EXPECT_EQ(job.can_start(), one.start);
    EXPECT_EQ(job.can_delete(), one.start);
    EXPECT_EQ(job.can_redo(), one.redo);
  }
}

TEST(Replicate_Job, events_tell_the_job_in_the_matching_state_only) {
  using json_spirit::Value;
  const Value common = {{"job_id", 77}, {"task_id", "task"}, {"copy", 0}, {"start_time", 1000}};
  const struct {
    int kind;
    Replicate_Job::Job_State state;
    Value more;
  } cases[] = {
      {1, Replicate_Job::JOB_STATE_RUNNING, {{"source_size", 600}, {"data_size", 0}}},
      {4,
       Replicate_Job::JOB_STATE_RUNNING,
       {{"source_size", 600}, {"data_size", 600}, {"transfer_size", 600}, {"speed", 0}, {"progress", 0}}},
      {5,
       Replicate_Job::JOB_STATE_FAILED,
       {{"source_size", 600},
        {"data_size", 0},
        {"end_time", 2000},
        {"result", 1},
        {"error_code", -3},
        {"message", "broken"}}},
      {6,
       Replicate_Job::JOB_STATE_SUCCEEDED,
       {{"source_size", 600},
        {"data_size", 600},
        {"end_time", 2000},
        {"result", 0},
        {"error_code", 0},
        {"message", "success"}}},
  };
  for (const auto& one : cases) {
    Recording_Sink sink;
    for (int state = 0; state <= 4; ++state) {
      Replicate_Job job = make_job(static_cast<Replicate_Job::Job_State>(state));
      EXPECT_EQ(job.notify(one.kind), state == one.state);
    }
    Value wanted = common;
    wanted["kind"] = one.kind;
    wanted.update(one.more);
    EXPECT_EQ(Value(sink.events), Value::array({wanted}));
  }
}

TEST(Replicate_Job, no_event_without_a_backup_server_job_a_sink_or_a_known_kind) {
  Replicate_Job job = make_job(Replicate_Job::JOB_STATE_RUNNING);
  EXPECT_FALSE(job.notify(1));  // no sink
  Recording_Sink sink;
  for (int kind : {0, 2, 3, 7})
    EXPECT_FALSE(job.notify(kind));
  for (int id : {0, -1}) {
    job.job_def().replicate_job_id(id);
    EXPECT_FALSE(job.notify(1));
  }
  EXPECT_TRUE(sink.events.empty());
}

TEST(Replicate_Job, progress_is_kept_within_bounds_and_told) {
  const struct {
    int given, kept;
    ACE_UINT64 total;
  } cases[] = {{-5, 0, 600}, {0, 0, 600}, {1, 1, 60000}, {7, 7, 8571}, {99, 99, 606}, {150, 100, 600}};
  Recording_Sink sink;
  for (const auto& one : cases) {
    Replicate_Job job = make_job(Replicate_Job::JOB_STATE_RUNNING);
    sink.events.clear();
    job.progress(one.given);
    EXPECT_EQ(job.progress(), one.kept);
    ASSERT_EQ(sink.events.size(), 1u);
    EXPECT_EQ(sink.events[0].at("source_size"), one.total);
    EXPECT_EQ(sink.events[0].at("progress"), one.kept);
  }
}

TEST(Replicate_Job, alerts_and_job_records_go_to_the_sink_or_fail) {
  json_spirit::Value request = json_spirit::Object();
  EXPECT_FALSE(send_pool_replicate_alert(STORAGED_REPLICATE_ERROR_FAILED, {}, nullptr, nullptr));
  EXPECT_FALSE(Pool_Replicate_Manager::instance()->create_replicate_job(request));
  Recording_Sink sink;
  EXPECT_TRUE(send_pool_replicate_alert(STORAGED_REPLICATE_ERROR_FAILED, {}, nullptr, nullptr));
  EXPECT_EQ(sink.alert, 0x7000002040800004ULL);
  EXPECT_TRUE(Pool_Replicate_Manager::instance()->create_replicate_job(request));
  EXPECT_EQ(request["job_id"], 7);
}

class Job_Database_Test : public Catalog_Fixture {
 protected:
  Replicate_Job_Definition definition(int source = 1, int target = 2) {
    Replicate_Job_Definition def;
    def.source_pool_uuid(uuid(source));
    def.target_pool_uuid(uuid(target));
    def.catalog_uuid(uuid(3));
    def.snapshots({{{"lun_uuid", uuid(10)}, {"snapshots", {uuid(20)}}}});
    def.extended_attrs(R"({"replicate_job_id":12,"replicate_task_id":"t","k":1})");
    return def;
  }
  // Stores a definition and a job and gives the job a state and times. The job's id, or 0.
  long store(const char* state, std::time_t created, std::time_t started, int source = 1, int target = 2) {
    Replicate_Job_Definition def = definition(source, target);
    ACE_INT64 id = 0;
    if (!jobs_.add_job_def(def) || !jobs_.add_job(def, id)) return 0;
    Replicate_Job job(id);
    job.job_state_str(state);
    job.create_time(created);
    job.start_time(started);
    return jobs_.update_job(job) ? id : 0;
  }
  // Puts a value under a job's or definition's column behind the database class's back.
  bool set(const char* table, const char* column, const database::sql::Binding_Value& value) {
    Update_SQL sql(table);
    sql.set(column, value);
    return execute(sql);
  }

  Replicate_Job_Database jobs_;
};

TEST_P(Job_Database_Test, a_definition_comes_back_whole) {
  Replicate_Job_Definition def = definition();
  def.retry(2);
  ASSERT_TRUE(jobs_.add_job_def(def));
  EXPECT_EQ(def.id(), 1);
  Replicate_Job_Definition read;
  ASSERT_TRUE(jobs_.get_job_def_info(def.id(), read));
  EXPECT_EQ(read.id(), 1);
  EXPECT_EQ(read.source_pool_uuid(), uuid(1));
  EXPECT_EQ(read.target_pool_uuid(), uuid(2));
  EXPECT_EQ(read.catalog_uuid(), uuid(3));
  EXPECT_EQ(Value(read.snapshots()), Value(def.snapshots()));
  EXPECT_EQ(read.retry(), 2);
  EXPECT_EQ(read.replicate_job_id(), 12);
  EXPECT_EQ(read.replicate_task_id(), "t");

  read.retry(9);
  read.extended_attrs("{}");
  ASSERT_TRUE(jobs_.update_job_def(read));
  ASSERT_TRUE(jobs_.get_job_def_info(1, read));
  EXPECT_EQ(read.retry(), 9);
  EXPECT_EQ(read.replicate_job_id(), -1);
  EXPECT_EQ(read.replicate_task_id(), "");
  const Log_Capture log;
  ASSERT_TRUE(jobs_.del_job_def(1));
  EXPECT_FALSE(jobs_.get_job_def_info(1, read));
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_P(Job_Database_Test, a_definition_without_a_catalog_is_stored_with_the_zero_uuid) {
  Replicate_Job_Definition def = definition();
  def.catalog_uuid("");
  ASSERT_TRUE(jobs_.add_job_def(def));
  ASSERT_TRUE(jobs_.get_job_def_info(def.id(), def));
  EXPECT_EQ(def.catalog_uuid(), platform::zero_uuid());
}

TEST_P(Job_Database_Test, attributes_that_are_no_object_leave_the_job_identity_alone) {
  for (const char* attrs : {"", "[1]", "{", "7"}) {
    Replicate_Job_Definition def = definition();
    def.extended_attrs(attrs);
    ASSERT_TRUE(jobs_.add_job_def(def));
    Replicate_Job_Definition read;
    ASSERT_TRUE(jobs_.get_job_def_info(def.id(), read));
    EXPECT_EQ(read.replicate_job_id(), -1) << attrs;
  }
}

TEST_P(Job_Database_Test, damaged_rows_are_refused_with_their_reason) {
  ASSERT_NE(store("pending", 0, 0), 0);
  const std::string def_error = "Failed to get SCSI pool replicate job definition from database: ";
  const std::string job_error = "Failed to get SCSI pool replicate job info from database: ";
  const struct {
    const char *table, *column;
    database::sql::Binding_Value bad, good;
    std::string wanted;
  } cases[] = {
      {"replicate_job_def", "snapshots", "{}", "[]", def_error + "get snapshots error\n"},
      {"replicate_job_def", "snapshots", "[", "[]", def_error + "get snapshots error\n"},
      {"replicate_job_def", "retry", "many", 5,
       def_error + "member 'retry' is not of type integer: found string\n"},
      {"replicate_job", "start_time", "soon", "1970-01-01T00:00:00Z",
       "Failed get SCSI pool replicate job info: get job time error\n"},
      {"replicate_job", "data_size", -1, 0,
       job_error + "member 'data_size' is not of type unsigned integer: found negative integer\n"},
  };
  for (const auto& one : cases) {
    ASSERT_TRUE(set(one.table, one.column, one.bad));
    const Log_Capture log;
    Replicate_Job job(1);
    Replicate_Job_Definition def;
    EXPECT_FALSE(jobs_.get_job_info(job) && jobs_.get_job_def_info(1, def));
    EXPECT_EQ(log.errors(), one.wanted);
    ASSERT_TRUE(set(one.table, one.column, one.good));
  }
  Replicate_Job job(1);
  EXPECT_TRUE(jobs_.get_job_info(job));
}

TEST_P(Job_Database_Test, a_job_comes_back_whole) {
  Replicate_Job_Definition def = definition();
  ASSERT_TRUE(jobs_.add_job_def(def));
  ACE_INT64 id = 0;
  ASSERT_TRUE(jobs_.add_job(def, id));
  Replicate_Job job(id);
  ASSERT_TRUE(jobs_.get_job_info(job));
  EXPECT_EQ(job.job_def().id(), def.id());
  EXPECT_EQ(job.job_state(), Replicate_Job::JOB_STATE_PENDING);
  EXPECT_NEAR(job.create_time(), std::time(nullptr), 5);
  EXPECT_EQ(job.start_time() + job.end_time() + job.progress(), 0);

  job.job_state(Replicate_Job::JOB_STATE_SUCCEEDED);
  job.progress(100);
  job.start_time(1000);
  job.end_time(2000);
  job.data_size(1ULL << 62);
  ASSERT_TRUE(jobs_.update_job(job));
  Replicate_Job read(id);
  ASSERT_TRUE(jobs_.get_job_info(read));
  EXPECT_EQ(read.job_state_str(), "succeeded");
  EXPECT_EQ(read.progress(), 100);
  EXPECT_EQ(read.start_time(), 1000);
  EXPECT_EQ(read.end_time(), 2000);
  EXPECT_EQ(read.data_size(), 1ULL << 62);
  ASSERT_TRUE(jobs_.del_job(id));
  EXPECT_FALSE(jobs_.get_job_info(read));
  // An id that was given out is never given out again.
  ACE_INT64 next = 0;
  ASSERT_TRUE(jobs_.add_job(def, next));
  EXPECT_GT(next, id);
}

TEST_P(Job_Database_Test, jobs_are_listed_newest_first_and_filtered) {
  ASSERT_EQ(store("failed", 500, 600), 1);
  ASSERT_EQ(store("running", 900, 950), 2);
  ASSERT_EQ(store("running", 700, 800, 1, 4), 3);
  ASSERT_EQ(store("pending", 900, 0, 5), 4);
  const std::string six_hundred = "1970-01-01T00:10:00Z";
  const std::string eight_hundred = "1970-01-01T00:13:20Z";
  const struct {
    std::string pool;
    int limit, offset;
    std::string state, from, to;
    std::vector<long> wanted;
  } cases[] = {
      {"", 0, 0, "", "", "", {4, 2, 3, 1}},
      {uuid(1), 0, 0, "", "", "", {2, 3, 1}},
      {"", 2, 1, "", "", "", {2, 3}},
      {"", 0, 3, "", "", "", {1}},
      {"", 0, 0, "running", "", "", {2, 3}},
      {"", 0, 0, "", six_hundred, eight_hundred, {3, 1}},
      {uuid(1), 1, 0, "running", six_hundred, eight_hundred, {3}},
      {uuid(99), 0, 0, "", "", "", {}},
  };
  for (const auto& one : cases) {
    std::vector<long> ids;
    EXPECT_TRUE(jobs_.list_job(one.pool, ids, one.limit, one.offset, one.state, one.from, one.to));
    EXPECT_EQ(ids, one.wanted);
  }
  std::vector<long> ids;
  EXPECT_FALSE(jobs_.list_job("no-uuid", ids, 0, 0, "", "", ""));

  const struct {
    int source;
    std::string target;
    ACE_INT64 wanted;
  } amounts[] = {{1, "", 3}, {1, uuid(2), 2}, {1, uuid(4), 1}, {99, "", 0}};
  for (const auto& one : amounts) {
    ACE_INT64 amount = -1;
    EXPECT_TRUE(jobs_.job_amount(uuid(one.source), amount, one.target));
    EXPECT_EQ(amount, one.wanted);
  }

  ASSERT_TRUE(jobs_.reset_job_state());
  ASSERT_TRUE(jobs_.list_job("", ids, 0, 0, "running", "", ""));
  EXPECT_TRUE(ids.empty());
  ASSERT_TRUE(jobs_.list_job("", ids, 0, 0, "failed", "", ""));
  EXPECT_EQ(ids, (std::vector<long>{2, 3, 1}));
}

TEST_P(Job_Database_Test, without_a_connection_every_operation_says_so) {
  disconnect();
  Replicate_Job_Definition def = definition();
  Replicate_Job job(1);
  ACE_INT64 number = 0;
  std::vector<long> ids;
  const std::function<bool()> operations[] = {
      [&] { return jobs_.add_job_def(def); },     [&] { return jobs_.update_job_def(def); },
      [&] { return jobs_.del_job_def(1); },       [&] { return jobs_.get_job_def_info(1, def); },
      [&] { return jobs_.add_job(def, number); }, [&] { return jobs_.del_job(1); },
      [&] { return jobs_.get_job_info(job); },    [&] { return jobs_.list_job("", ids, 0, 0, "", "", ""); },
      [&] { return jobs_.update_job(job); },      [&] { return jobs_.job_amount(uuid(1), number, ""); },
      [&] { return jobs_.reset_job_state(); },
  };
  for (const auto& run : operations) {
    const Log_Capture log;
    EXPECT_FALSE(run());
    EXPECT_TRUE(log.contains(LM_ERROR, "Failed to connect to database 'scsi_pool_manager' at "))
        << log.dump();
  }
}

TEST_P(Job_Database_Test, failing_statements_are_told_in_the_words_of_the_operation) {
  Replicate_Job_Definition def = definition();
  def.source_pool_uuid("x");
  Replicate_Job job(1);
  job.data_size(~0ULL);
  ACE_INT64 number = 0;
  const struct {
    const char* wanted;
    std::function<bool()> run;
  } cases[] = {
      {"Failed to add SCSI pool replicate job definition to database\n",
       [&] { return jobs_.add_job_def(def); }},
      {"Failed to update SCSI pool replicate job info in database.\n", [&] { return jobs_.update_job(job); }},
      {"", [&] { return jobs_.job_amount("x", number, ""); }},
  };
  for (const auto& one : cases) {
    const Log_Capture log;
    EXPECT_FALSE(one.run());
    EXPECT_EQ(log.errors(), one.wanted);
  }
  EXPECT_EQ(def.id(), 0);
}

CATALOG_TESTS(Job_Database_Test);

}  // namespace
