#pragma once
// A pool that replicates to a scripted peer, and what it reports of it.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/services/alerts.h"
#include "platform/services/queue_manager.h"
#include "tests/support/dataset_fixture.h"
#include "tests/support/scripted_peer.h"

class Replication_Fixture : public Dataset_Fixture, Event_Sink {
 protected:
  using Job = scsi_pool::Replicate_Job;
  using Job_var = scsi_pool::Replicate_Job_var;
  using Definition = scsi_pool::Replicate_Job_Definition;

  Replication_Fixture() {
    Pool_Replicate_Manager::instance()->set_sink(this);
    replicate_to(peer_.port());
    add_lun(A);
    pool().send_command = "printf stream";
  }
  ~Replication_Fixture() override {
    Queue_Manager::close_instance();
    Pool_Replicate_Manager::instance()->set_sink(nullptr);
  }

  bool put_event(const Replicate_Event& event) override {
    Object record = event.to_object();
    std::string text = std::to_string(event.kind());
    if (record.count("progress") != 0) text += ":" + std::to_string(record["progress"].get<int>());
    events_ += (events_.empty() ? "" : " ") + text;
    return true;
  }
  bool put_alert(ACE_UINT64 id, const Object& params, const char*, const char*) override {
    alerts_.push_back(params);
    alert_ids_.push_back(id);
    return true;
  }
  bool create_job(json_spirit::Value& request) override {
    if (no_job_) return false;
    request["job_id"] = 7;
    request["task_id"] = "t7";
    return true;
  }

  Definition definition(const Array& datasets) const {
    Definition def;
    def.source_pool_uuid(POOL);
    def.target_pool_uuid(PEER_POOL);
    def.snapshots(datasets);
    return def;
  }
  Array lun(const std::string& uuid) const { return {Object{{"lun_uuid", uuid}}}; }
  // The newest job of the pool.
  Job_var newest() const {
    std::vector<Job_var> jobs;
    EXPECT_TRUE(Job_Manager::instance()->list_job(POOL, jobs, 0, 0, "", "", ""));
    Job_var found;
    for (Job_var& one : jobs)
      if (found.null() || one->id() > found->id()) found = one;
    return found;
  }
  Job_var submit(Definition def) {
    EXPECT_TRUE(Job_Manager::instance()->submit_job(def)) << log_.dump();
    return newest();
  }
  Job_var submit(const Array& datasets) { return submit(definition(datasets)); }
  void store(Job_var job, Job::Job_State state) {
    job->job_state(state);
    ASSERT_TRUE(Job_Manager::instance()->update_job(job));
  }
  static std::vector<std::string> ids(std::vector<int> numbers) {
    std::vector<std::string> list;
    for (const int one : numbers)
      list.push_back(id(one));
    return list;
  }

  Scripted_Peer peer_;
  std::string events_;  // kinds, in order; progress with its percent
  std::vector<Object> alerts_;
  std::vector<ACE_UINT64> alert_ids_;
  bool no_job_ = false;
};
