// The runners: what they return, what they log, and what they leave behind (nothing).

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "platform/base/file.h"
#include "platform/process/holder.h"
#include "platform/process/log_line_handle.h"
#include "platform/process/process_manager.h"
#include "platform/process/subprocess.h"
#include "platform/process/text_process_handler.h"
#include "platform/process/tool_options.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_tools.h"
#include "tests/support/temp_dir.h"

namespace {

using Clock = std::chrono::steady_clock;

std::size_t open_handles() {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    count += entry.path().empty() ? 0 : 1;
  return count;
}

// No descriptor and no child more than before; also with processes that lost their parent made ours.
class Process : public ::testing::Test {
 protected:
  void SetUp() override {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    handles_ = open_handles();
  }
  void TearDown() override {
    Process_Manager::close();
    EXPECT_EQ(open_handles(), handles_) << "a descriptor was leaked";
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was left";
    EXPECT_EQ(errno, ECHILD);
  }
  Log_Capture log_;

 private:
  std::size_t handles_ = 0;
};

class Lines : public Text_Process_Handler {
 public:
  explicit Lines(int flags = 0) : Text_Process_Handler(flags) {}
  int handle_stdout_line(const char* line, std::size_t len) override {
    EXPECT_EQ(line[len], '\0');
    ++count;
    bytes += len;
    last.assign(line, len);
    return count == stop_after ? 1 : 0;
  }
  int run(const std::string& command) {
    platform::Tool_Options options(command);
    return call(8, options);
  }
  std::size_t count = 0, bytes = 0, stop_after = 0;
  std::string last;
};

TEST_F(Process, shell_style_returns_the_exit_status) {
  EXPECT_EQ(subprocess::call("true"), 0);
  EXPECT_EQ(subprocess::call("exit %d", 3), 3);
  EXPECT_EQ(subprocess::call("kill -SEGV $$"), 128 + SIGSEGV);
  EXPECT_EQ(subprocess::call("false | true"), 1) << "a failing first stage of a pipe must be seen";
}

TEST_F(Process, standard_error_is_logged_with_the_command_and_gives_errno) {
  EXPECT_EQ(subprocess::call("echo 'ERROR: x: No space left on device' >&2; exit 1"), 1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_TRUE(log_.contains(LM_NOTICE, "exit 1': ERROR: x: No space left on device")) << log_.dump();
  EXPECT_EQ(subprocess::call("exit 1"), 1);
  EXPECT_EQ(errno, EIO);
}

TEST_F(Process, missing_tool) {
  EXPECT_EQ(subprocess::call("no-such-tool-here \"x\""), 127);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(Lines().run("no-such-tool-here x"), -1);
  EXPECT_EQ(errno, ENOENT);
  ACE_Process_Ex process(ACE_Process_Ex::OPTION_READ_STDOUT);
  platform::Tool_Options options("no-such-tool-here");
  EXPECT_EQ(Process_Manager::instance()->spawn(&process, options, nullptr), -1);
  EXPECT_EQ(process.pid(), -1);
}

TEST_F(Process, quotes_keep_a_word_with_a_blank_together) {
  Scripted_Tools tools({"tool"});
  tools.expect("tool show '/mnt/a b/c' x''y");
  EXPECT_EQ(Lines().run("tool show \"/mnt/a b/c\" \"x''y\""), 0);
}

TEST_F(Process, huge_output_on_both_streams_does_not_block) {
  Lines lines;
  EXPECT_EQ(lines.run("sh -c 'seq 1 400000; seq 1 400000 >&2; seq 1 100000; exit 7'"), 7);
  EXPECT_EQ(lines.count, 500000u);
  EXPECT_EQ(lines.errors().size(), 64u * 1024);
  EXPECT_EQ(log_.count(LM_NOTICE), 9u) << "eight lines and the number of the others";
}

TEST_F(Process, child_that_closes_its_output_early_is_still_waited_for) {
  Lines lines;
  EXPECT_EQ(lines.run("sh -c 'echo x; exec >&- 2>&-; sleep 0.3; exit 5'"), 5);
}

TEST_F(Process, something_left_in_the_background_does_not_hold_the_run) {
  const auto begin = Clock::now();
  Lines lines;
  EXPECT_EQ(lines.run("sh -c 'sleep 4 & echo x'"), 0);
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(3));
  while (::waitpid(-1, nullptr, 0) > 0) {
  }
}

TEST_F(Process, time_limit_kills_the_whole_group) {
  const auto begin = Clock::now();
  Lines lines;
  lines.time_limit(1);
  EXPECT_EQ(lines.run("sh -c 'sleep 30; echo never'"), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(4));
  while (::waitpid(-1, nullptr, 0) > 0) {
  }
}

TEST_F(Process, handler_can_end_the_run) {
  Lines lines;
  lines.stop_after = 3;
  EXPECT_EQ(lines.run("sh -c 'exec yes'"), -1);
  EXPECT_EQ(errno, ECANCELED);
  EXPECT_EQ(lines.count, 3u);
}

TEST_F(Process, child_has_no_other_handles_default_signals_and_null_input) {
  const int leak = ::open("/dev/null", O_RDONLY);  // without close-on-exec
  ::signal(SIGPIPE, SIG_IGN);
  Lines lines;
  EXPECT_EQ(lines.run("sh -c 'cat; ls /proc/self/fd | wc -l; grep SigIgn /proc/self/status'"), 0);
  EXPECT_EQ(std::stoull(lines.last.substr(8), nullptr, 16) & (1ull << (SIGPIPE - 1)), 0u) << lines.last;
  EXPECT_EQ(lines.count, 2u);
  Lines handles;
  EXPECT_EQ(handles.run("ls /proc/self/fd"), 0);
  EXPECT_EQ(handles.count, 4u) << "0, 1, 2 and the folder that ls reads";
  ::close(leak);
}

TEST_F(Process, command_longer_than_the_default_buffers) {
  std::string command = "sh -c 'echo $#' x";
  for (int i = 0; i < 400; ++i)
    command += " -c /orbistor/scsipool/0d9c7d04-6ef1-4f0a-a5c8-3f4b7d2b1a90";
  Lines lines;
  EXPECT_EQ(lines.run(command), 0);
  EXPECT_EQ(lines.last, "800");
  ACE_Process_Options too_small(true, 100);
  too_small.command_line("%s", command.c_str());
  EXPECT_EQ(subprocess::call(too_small, nullptr), -1) << "a cut command must not be run";
  EXPECT_EQ(errno, E2BIG);
}

TEST_F(Process, write_to_a_tool_that_has_gone_is_an_error_not_the_end) {
  ::signal(SIGPIPE, SIG_DFL);
  ACE_Process_Ex process;
  process.redirect(ACE_Process_Ex::REDIRECT_STDIN);
  platform::Tool_Options options("true");
  const pid_t pid = Process_Manager::instance()->spawn(&process, options, nullptr);
  ASSERT_EQ(Process_Manager::instance()->wait(pid, ACE_Time_Value::max_time, nullptr), pid);
  EXPECT_FALSE(platform::write_all(process.stdin_handle(), "x", 1));
  EXPECT_EQ(errno, EPIPE);
}

TEST_F(Process, terminate_ends_the_group_also_when_it_ignores_the_request) {
  const Temp_Dir dir;
  ACE_Process_Ex process(ACE_Process_Ex::OPTION_READ_STDOUT);
  platform::Tool_Options options("sh -c \"trap '' TERM; sleep 60 & echo $!; wait; sleep 60\"");
  const pid_t pid = Process_Manager::instance()->spawn(&process, options, nullptr);
  char buffer[32] = {};
  ASSERT_GT(::read(process.stdout_handle(), buffer, sizeof buffer - 1), 0);
  const pid_t grandchild = std::atoi(buffer);
  EXPECT_EQ(Process_Manager::instance()->terminate(pid), 0);
  EXPECT_FALSE(process.running());
  ::waitpid(grandchild, nullptr, 0);
  EXPECT_EQ(::kill(grandchild, 0), -1);
  EXPECT_EQ(Process_Manager::instance()->terminate(pid), 0) << "twice is no harm";
  EXPECT_EQ(Process_Manager::instance()->terminate(999999), -1);
  EXPECT_EQ(Process_Manager::instance()->wait(999999, ACE_Time_Value(0), nullptr), -1);
}

TEST_F(Process, destroyed_object_leaves_no_process) {
  pid_t pid = -1;
  {
    ACE_Process_Ex process;
    platform::Tool_Options options("sleep 60");
    pid = Process_Manager::instance()->spawn(&process, options, nullptr);
  }
  EXPECT_EQ(::kill(pid, 0), -1);
}

TEST_F(Process, lines_of_a_handle_are_logged_until_its_end) {
  const auto callback = std::make_shared<Log_Capture>();
  for (const bool close : {true, false}) {
    callback->clear();
    ACE_Process_Ex process(ACE_Process_Ex::OPTION_READ_STDOUT);
    platform::Tool_Options options("sh -c 'echo one >&2; sleep 0.2; printf two >&2'");
    const pid_t pid = Process_Manager::instance()->spawn(&process, options, nullptr);
    Auto_Handle own(process.detach_stderr());
    const ACE_HANDLE handle = close ? own.release() : own.get();
    ASSERT_TRUE(
        log_line_handle(LM_ERROR, handle, close, Process_Manager::instance()->reactor(), "send: ", callback));
    own.reset();  // the owner may close at any time
    ASSERT_EQ(Process_Manager::instance()->wait(pid, ACE_Time_Value(5), nullptr), pid);
    for (int i = 0; i < 200 && callback->lines().size() < 2; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(callback->has(LM_ERROR, "send: one\n") && callback->has(LM_ERROR, "send: two\n"))
        << callback->dump();
  }
}

TEST_F(Process, stopping_hands_on_what_is_there_and_takes_no_more) {
  const auto callback = std::make_shared<Log_Capture>();
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  Line_Reactor reactor;
  ASSERT_TRUE(log_line_handle(LM_ERROR, ends[0], true, &reactor, nullptr, callback));
  ASSERT_EQ(::write(ends[1], "said\nhalf", 9), 9);
  reactor.stop();
  EXPECT_TRUE(callback->has(LM_ERROR, "said\n")) << callback->dump();
  EXPECT_FALSE(log_line_handle(LM_ERROR, ends[1], true, &reactor, nullptr, callback));
  ::close(ends[1]);
}

TEST_F(Process, holder_of_a_file_is_named) {
  const Temp_Dir dir;
  const int handle = platform::open_cloexec(dir / "f", O_WRONLY | O_CREAT, 0600);
  EXPECT_NE(platform::device_holders(dir / "f").find("(pid " + std::to_string(::getpid()) + ")"),
            std::string::npos);
  ::close(handle);
  EXPECT_EQ(platform::device_holders(dir / "f"), "");
}

TEST_F(Process, many_threads_run_tools_at_once) {
  std::vector<std::thread> threads;
  std::atomic<int> good{0};
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&good, i] {
      for (int round = 0; round < 10; ++round) {
        Lines lines;
        if (lines.run("echo " + std::to_string(i)) == 0 && lines.last == std::to_string(i)) ++good;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(good, 80);
}

}  // namespace
