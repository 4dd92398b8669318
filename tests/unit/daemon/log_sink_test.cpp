#include "daemon/log_sink.h"

#include <gtest/gtest.h>

namespace {

TEST(Log_Sink, LinesForPeopleAndForTheJournal) {
  const struct {
    ACE_Log_Priority priority;
    const char* source;
    const char* message;
    bool journal;
    const char* line;
  } cases[] = {
      {LM_ERROR, "a.cpp:7", "Failed\n", false, "1970-01-01T00:00:01.500Z ERROR a.cpp:7: Failed\n"},
      {LM_ERROR, "a.cpp:7", "Failed\n", true, "<3>a.cpp:7: Failed\n"},
      {LM_INFO, "", "", true, "<6>\n"},
      {LM_NOTICE, "", "x\r\n\n", true, "<5>x\n"},
      // Text from outside can neither look like a record of its own nor reach the terminal's control.
      {LM_EMERGENCY, "", "one\n<7>two\x1b[2J", true, "<0>one\n<0>    <7>two?[2J\n"},
      {LM_DEBUG, "", "one\n1970 ERROR two", false,
       "1970-01-01T00:00:01.500Z DEBUG one\n    1970 ERROR two\n"},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(one.line, scsipoold::format_line(one.priority, 1.5, one.source, one.message, one.journal));
  }
}

}  // namespace
