// job list|show|watch|redo|remove, event list, alert list.

#include <chrono>
#include <iomanip>
#include <memory>
#include <thread>

#include "ctl/record.h"
#include "ctl/requests.h"
#include "ctl/size_text.h"

namespace ctl {

using json_spirit::Object;
using json_spirit::Value;

namespace {

const char JOB_PATH[] = "/svc/r/scsipool/job";
constexpr unsigned BAR_WIDTH = 30;

Table job_table() {
  Table table;
  table.column("JOB", Table::RIGHT);
  table.column("STATE");
  table.column("PROGRESS", Table::RIGHT);
  table.column("SENT", Table::RIGHT);
  for (const char* heading : {"CREATED", "ENDED", "TARGET POOL", "MESSAGE"})
    table.column(heading);
  return table;
}

void job_row(Table& table, const Object& job) {
  std::string message = text_of(job, "error_message");
  while (!message.empty() && message.back() == '\n')
    message.pop_back();
  const std::string waits = text_of(job, "waits_for");
  if (!waits.empty()) message = "waits for " + waits;
  if (flag_of(job, "invalid") == "yes")
    message += message.empty() ? "its snapshots are gone" : "; its snapshots are gone";
  table.row({number_of(job, "job_id"), text_of(job, "state"), number_of(job, "progress") + " %",
             size_of(job, "data_size"), text_of(job, "create_time", "-"), text_of(job, "end_time", "-"),
             text_of(job, "target_pool_id"), message});
}

bool get_job(Session& session, std::uint64_t id, Object& job) {
  Value answer;
  if (!session.request("GET", JOB_PATH, {{"job_id", std::to_string(id)}}, nullptr, answer)) return false;
  if (!answer.is_array() || answer.size() != 1 || !answer.front().is_object()) {
    session.failed("the daemon's answer is no job");
    return false;
  }
  job = *json_spirit::get_object(answer.front());
  return true;
}

// Watches one job: a bar that is drawn over on a terminal, a line for each change elsewhere.
class Watch {
 public:
  explicit Watch(Session& session) : session_(session), start_(Clock::now()) {}

  void show(const Object& job) {
    std::uint64_t bytes = 0, percent = 0;
    json_spirit::object_find(job, "data_size", bytes);
    json_spirit::object_find(job, "progress", percent);
    const std::string state = text_of(job, "state");
    const std::string waits = text_of(job, "waits_for");
    const std::string line = state + " " + std::to_string(percent) + " %, " + print_size(bytes) + " sent" +
                             rate(bytes, percent, state) + (waits.empty() ? "" : ", waits for " + waits);
    if (session_.terminal) {
      const std::size_t filled = percent * BAR_WIDTH / 100;
      session_.out << "\r\033[K[" << std::string(filled, '#') << std::string(BAR_WIDTH - filled, '.') << "] "
                   << line << std::flush;
    } else if (line != last_) {
      session_.out << line << std::endl;
    }
    last_ = line;
  }

  void end() {
    if (session_.terminal) session_.out << "\n";
  }

 private:
  using Clock = std::chrono::steady_clock;

  // Bytes a second since the watch began, and the time that is left at this pace.
  std::string rate(std::uint64_t bytes, std::uint64_t percent, const std::string& state) {
    const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    if (first_bytes_ > bytes || !begun_) {
      first_bytes_ = bytes;
      first_percent_ = percent;
      start_ = Clock::now();
      begun_ = true;
      return "";
    }
    if (state != "running" || seconds < 1 || bytes == first_bytes_) return "";
    std::string text =
        ", " + print_size(static_cast<std::uint64_t>(static_cast<double>(bytes - first_bytes_) / seconds)) +
        "/s";
    if (percent > first_percent_) {
      const double left =
          seconds * static_cast<double>(100 - percent) / static_cast<double>(percent - first_percent_);
      text += ", about " + std::to_string(static_cast<unsigned>(left) + 1) + " s left";
    }
    return text;
  }

  Session& session_;
  Clock::time_point start_;
  std::uint64_t first_bytes_ = 0, first_percent_ = 0;
  bool begun_ = false;
  std::string last_;
};

int watch(Session& session, std::uint64_t id) {
  Watch bar(session);
  for (;;) {
    Object job;
    if (!get_job(session, id, job)) return FAILED;
    const std::string state = text_of(job, "state");
    if (!session.json) bar.show(job);
    if (state == "succeeded" || state == "failed") {
      bar.end();
      if (session.json) session.print_json(job);
      const std::string message = text_of(job, "error_message");
      if (!session.json && !message.empty()) session.out << printable(message) << "\n";
      return state == "succeeded" ? DONE : FAILED;
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
}

template <typename Run>
void job_command(CLI::App& group, Action& action, const char* name, const char* help, Run run) {
  auto id = std::make_shared<std::uint64_t>(0);
  auto* command = group.add_subcommand(name, help);
  command->add_option("JOB", *id, "Number of the job")->required();
  command->callback(
      [id, run, &action] { action = [id, run](Session& session) { return run(session, *id); }; });
}

int show(Session& session, std::uint64_t id) {
  return show_list(session, JOB_PATH, {{"job_id", std::to_string(id)}}, job_table(), job_row, "no such job");
}

int redo(Session& session, std::uint64_t id) {
  const Object body{{"job_id", id}};
  return send(session, "PUT", JOB_PATH, {}, &body, "job " + std::to_string(id) + " is in the queue again");
}

int remove(Session& session, std::uint64_t id) {
  return send(session, "DELETE", JOB_PATH, {{"job_id", std::to_string(id)}}, nullptr,
              "removed job " + std::to_string(id));
}

void add_lists(CLI::App& app, Action& action) {
  auto* event = app.add_subcommand("event", "Events of replication");
  event->require_subcommand(1);
  event->fallthrough();
  auto job = std::make_shared<std::uint64_t>(0);
  auto* list = event->add_subcommand("list", "List events, newest first");
  list->add_option("--job", *job, "Of one job");
  list->callback([job, &action] {
    action = [job](Session& session) {
      Table table;
      for (const char* heading : {"TIME", "KIND", "JOB", "MESSAGE"})
        table.column(heading);
      const Query query = *job == 0 ? Query{} : Query{{"job_id", std::to_string(*job)}};
      return show_list(
          session, "/svc/r/scsipool/event", query, table,
          [](Table& rows, const Object& one) {
            rows.row({text_of(one, "time"), text_of(one, "kind"), number_of(one, "job_id"),
                      text_of(one, "message")});
          },
          "no events");
    };
  });
  auto* alert = app.add_subcommand("alert", "Alerts");
  alert->require_subcommand(1);
  alert->fallthrough();
  alert->add_subcommand("list", "List alerts, newest first")->callback([&action] {
    action = [](Session& session) {
      Table table;
      for (const char* heading : {"TIME", "SEVERITY", "ALERT", "MESSAGE"})
        table.column(heading);
      return show_list(
          session, "/svc/r/scsipool/alert", {}, table,
          [](Table& rows, const Object& one) {
            rows.row({text_of(one, "time"), text_of(one, "severity"), text_of(one, "alert"),
                      text_of(one, "message")});
          },
          "no alerts");
    };
  });
}

}  // namespace

void add_job_commands(CLI::App& app, Action& action) {
  auto* job = app.add_subcommand("job", "Replication jobs");
  job->require_subcommand(1);
  job->fallthrough();
  auto state = std::make_shared<std::string>();
  auto* command = pool_command(*job, action, "list", "List the jobs of a pool, newest first",
                               [state](Session& session, const std::string& pool) {
                                 Query query{{"pool_id", pool}};
                                 if (!state->empty()) query.emplace_back("state", *state);
                                 return show_list(session, JOB_PATH, query, job_table(), job_row, "no jobs");
                               });
  command->add_option("--state", *state, "Only those")
      ->check(CLI::IsMember({"pending", "running", "succeeded", "failed"}));
  job_command(*job, action, "show", "Show one job", show);
  job_command(*job, action, "watch", "Show its progress until it ends", watch);
  job_command(*job, action, "redo", "Run a finished job again", redo);
  job_command(*job, action, "remove", "Remove a job that is not running", remove);
  add_lists(app, action);
}

}  // namespace ctl
