#include "ctl/table.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

TEST(Table, AlignsByCharactersAndHidesControlCharacters) {
  ctl::Table table;
  table.column("NAME");
  table.column("SIZE", ctl::Table::RIGHT);
  table.column("NOTE");
  table.row({"größe", "1 B", "x"});
  table.row({"a\x1b[31m\nb", "100 GiB", ""});
  std::ostringstream out;
  table.print(out);
  EXPECT_EQ(
      "NAME         SIZE  NOTE\n"
      "größe         1 B  x\n"
      "a?[31m?b  100 GiB\n",
      out.str());
}

}  // namespace
