#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "platform/database/schema.h"
#include "platform/database/sql.h"

namespace {

using namespace database::sql;

const char UUID[] = "11111111-2222-3333-4444-555555555555";

std::string text_of(const SQL& sql) {
  std::string text;
  std::string error;
  return sql.text(text, error) ? text : "error: " + error;
}

struct Text_Case {
  const char* wanted;
  std::function<std::unique_ptr<SQL>()> make;
};

TEST(SQL_Text, statements) {
  const Text_Case cases[] = {
      {"SELECT * FROM t", [] { return std::make_unique<Select_SQL>("t"); }},
      {"SELECT DISTINCT a, b x FROM t AS v LEFT JOIN u AS w ON v.a = w.a JOIN z ON z.b = v.b WHERE (a = :a) "
       "AND "
       "v.id = :_1 AND c >= :_2 AND c <= :_3 ORDER BY a DESC LIMIT :_limit OFFSET :_offset",
       [] {
         auto sql = std::make_unique<Select_SQL>("t", "v");
         sql->left_join("u", "w", "v.a = w.a");
         sql->join("z", nullptr, "z.b = v.b");
         sql->select("a, b x");
         sql->distinct(true);
         sql->where("a = :a", false);
         sql->bind(":a", 1);
         sql->and_filter()->add_key_uuid_eq_item("v.id", UUID);
         sql->and_filter()->add_kv_item("c", "x", Filter_SQL::OP_GREATER_OR_EQUAL);
         sql->and_filter()->add_kv_item("c", "y", Filter_SQL::OP_LESS_OR_EQUAL);
         sql->order_by("a");
         sql->desc(true);
         sql->limit(3);
         sql->offset(4);
         return sql;
       }},
      {"SELECT j.id AS id, count(*) AS n FROM t AS j ORDER BY id ASC LIMIT -1 OFFSET :_offset",
       [] {
         auto sql = std::make_unique<Select_SQL>();
         sql->table("t", "j");
         sql->add_key("j.id", "id");
         sql->add_key("count(*)", "n");
         sql->order_by("id");
         sql->limit(0);
         sql->offset(2);
         return sql;
       }},
      {"INSERT INTO t (id, b, a) VALUES (:_0, :_1, :_2)",
       [] {
         auto sql = std::make_unique<Insert_SQL>("t");
         sql->value_uuid("id", UUID);
         sql->value("b", "'; DROP TABLE t", nullptr);
         sql->value("a", true);
         return sql;
       }},
      {"UPDATE t SET a = :_0, b = :_1 WHERE ((x = 1) AND (y = 2))",
       [] {
         auto sql = std::make_unique<Update_SQL>("t");
         sql->set("a", 1);
         sql->set("b", 2);
         sql->where("x = 1");
         sql->where("y = 2", true);
         return sql;
       }},
      {"DELETE FROM t WHERE a = :_0",
       [] {
         auto sql = std::make_unique<Delete_SQL>("t");
         sql->and_filter()->add_kv_eq_item("a", 1);
         return sql;
       }},
      {"error: an update of 't' sets no column", [] { return std::make_unique<Update_SQL>("t"); }},
      {"error: an insert into 't' has no column", [] { return std::make_unique<Insert_SQL>("t"); }},
      {"error: a select names no table", [] { return std::make_unique<Select_SQL>(); }},
      {"error: 'x' is no UUID",
       [] {
         auto sql = std::make_unique<Delete_SQL>("t");
         sql->and_filter()->add_key_uuid_eq_item("id", "x");
         return sql;
       }},
      {"error: '' is no UUID",
       [] {
         auto sql = std::make_unique<Delete_SQL>("t");
         sql->bind_uuid(":id", static_cast<const char*>(nullptr));
         return sql;
       }},
  };
  for (const Text_Case& one : cases)
    EXPECT_EQ(text_of(*one.make()), one.wanted);
}

TEST(Schema, is_cut_at_its_version_lines) {
  struct {
    const char* text;
    std::vector<std::string> wanted;  // empty: refused
  } const cases[] = {
      {"a;\nb;", {"a;\nb;\n"}},
      {"-- head\n-- version 1\na;\n-- version 2\nb;\n", {"-- head\na;\n", "b;\n"}},
      {"a;\n-- version 2\nb;\n-- version 3\nc;", {"a;\n", "b;\n", "c;\n"}},
      {"a;\n-- version 3\nb;", {}},
      {"-- version 2\nb;\n-- version 2\nc;", {}},
      {"-- version 1\na;\n-- version 1\nb;", {}},
      {"a;\n-- version two\nb;", {}},
  };
  for (const auto& one : cases) {
    std::vector<std::string> versions;
    EXPECT_EQ(database::sql::split_schema(one.text, versions), !one.wanted.empty()) << one.text;
    EXPECT_EQ(versions, one.wanted) << one.text;
  }
}

}  // namespace
