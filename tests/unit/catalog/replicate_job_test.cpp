// How replication jobs are stored. Their states and events are tested with the jobs themselves.
#include "backup/pools/scsipool/replicate_job.h"

#include <functional>

#include "backup/pools/scsipool/sqlite/replicate_job_database.h"
#include "platform/base/uuid.h"
#include "tests/unit/catalog/catalog_fixture.h"

namespace {

using scsi_pool::Replicate_Job;
using scsi_pool::Replicate_Job_Database;
using scsi_pool::Replicate_Job_Definition;
using Update_SQL = database::sql::Update_SQL;

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

TEST_F(Job_Database_Test, damaged_rows_are_refused_with_their_reason) {
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

TEST_F(Job_Database_Test, a_number_is_given_once) {
  const long id = store("succeeded", 500, 600);
  ASSERT_NE(id, 0);
  Replicate_Job read(id);
  read.data_size(1ULL << 62);
  ASSERT_TRUE(jobs_.update_job(read) && jobs_.get_job_info(read));
  EXPECT_EQ(read.data_size(), 1ULL << 62);
  ASSERT_TRUE(jobs_.del_job(id));
  EXPECT_FALSE(jobs_.get_job_info(read));
  EXPECT_GT(store("pending", 0, 0), id);
}

TEST_F(Job_Database_Test, jobs_are_listed_newest_first_and_filtered) {
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
      {uuid(1), 0, 0, "", "", "", {2, 3, 1}},
      {"", 2, 1, "", "", "", {2, 3}},
      {"", 0, 3, "", "", "", {1}},
      {"", 0, 0, "", six_hundred, eight_hundred, {3, 1}},
      {uuid(1), 1, 0, "running", six_hundred, eight_hundred, {3}},
  };
  for (const auto& one : cases) {
    std::vector<long> ids;
    EXPECT_TRUE(jobs_.list_job(one.pool, ids, one.limit, one.offset, one.state, one.from, one.to));
    EXPECT_EQ(ids, one.wanted);
  }
  std::vector<long> ids;
  EXPECT_FALSE(jobs_.list_job("no-uuid", ids, 0, 0, "", "", ""));

  ACE_INT64 all = -1, some = -1;
  EXPECT_TRUE(jobs_.job_amount(uuid(1), all, "") && jobs_.job_amount(uuid(1), some, uuid(4)));
  EXPECT_EQ(std::make_pair(all, some), std::make_pair(ACE_INT64{3}, ACE_INT64{1}));
  ASSERT_TRUE(jobs_.reset_job_state());
  ASSERT_TRUE(jobs_.list_job("", ids, 0, 0, "running", "", ""));
  EXPECT_TRUE(ids.empty());
  ASSERT_TRUE(jobs_.list_job("", ids, 0, 0, "failed", "", ""));
  EXPECT_EQ(ids, (std::vector<long>{2, 3, 1}));
}

TEST_F(Job_Database_Test, failures_are_told_in_the_words_of_the_operation) {
  Replicate_Job_Definition bad = definition(), def = definition();
  bad.source_pool_uuid("x");
  Replicate_Job job(1);
  job.data_size(~0ULL);
  ACE_INT64 number = 0;
  std::vector<long> ids;
  Log_Capture log;
  EXPECT_FALSE(jobs_.add_job_def(bad) || jobs_.update_job(job) || jobs_.job_amount("x", number, ""));
  EXPECT_EQ(log.errors(),
            "Failed to add SCSI pool replicate job definition to database\n"
            "Failed to update SCSI pool replicate job info in database.\n");
  disconnect();
  const std::function<bool()> operations[] = {
      [&] { return jobs_.add_job_def(def); },     [&] { return jobs_.update_job_def(def); },
      [&] { return jobs_.del_job_def(1); },       [&] { return jobs_.get_job_def_info(1, def); },
      [&] { return jobs_.add_job(def, number); }, [&] { return jobs_.del_job(1); },
      [&] { return jobs_.get_job_info(job); },    [&] { return jobs_.list_job("", ids, 0, 0, "", "", ""); },
      [&] { return jobs_.update_job(job); },      [&] { return jobs_.job_amount(uuid(1), number, ""); },
      [&] { return jobs_.reset_job_state(); },
  };
  for (const auto& run : operations) {
    log.clear();
    EXPECT_FALSE(run());
    EXPECT_TRUE(log.contains(LM_ERROR, "Failed to connect to database 'scsi_pool_manager' at "))
        << log.dump();
  }
}

}  // namespace
