// Signature databases: what is accepted, and the file:line message of what
// is not (with nothing half-loaded).
#include <gtest/gtest.h>

#include "scan/database.h"

namespace {

using vrk::scan::Database;
using vrk::scan::ParseDatabase;
using vrk::scan::SignatureKind;

TEST(Database, Accepts) {
  Database db;
  std::string error;
  ASSERT_TRUE(ParseDatabase("# a comment\n"
                            "\n"
                            "Test.Crc crc 37 0x739a3d8b   # trailing comment\n"
                            // As fingerprint prints it: hex without 0x, even when
                            // it looks decimal or has a leading 0.
                            "Test.Crc5\tcrc 5 01298774\r\n"
                            "Test.Pattern pattern 58 35 4F {0-3} 41\n"
                            "Test.Md5 md5 44D88612fea8a8f36de82e1278abb02f\n"
                            "Test.Md5 md5 44d88612fea8a8f36de82e1278abb02f 68\n"
                            "Test.Md5 md5 44d88612fea8a8f36de82e1278abb02f 68",
                            "db.txt", db, error))
      << error;
  ASSERT_EQ(db.signatures.size(), 6u);
  EXPECT_EQ(db.signatures[0].kind, SignatureKind::kCrc);
  EXPECT_EQ(db.signatures[0].column, 37u);
  EXPECT_EQ(db.signatures[0].crc, 0x739a3d8bu);
  EXPECT_EQ(db.signatures[0].origin(), "db.txt:3");
  EXPECT_EQ(db.signatures[1].crc, 0x01298774u);
  EXPECT_EQ(db.signatures[2].kind, SignatureKind::kPattern);
  EXPECT_EQ(db.signatures[2].pattern, "58 35 4F {0-3} 41");
  EXPECT_EQ(db.signatures[3].md5[0], 0x44);
  EXPECT_EQ(db.signatures[3].md5[15], 0x2f);
  EXPECT_EQ(db.signatures[3].size, -1);
  EXPECT_EQ(db.signatures[4].size, 68);
  // One name on several lines is fine; the same line twice earns a warning.
  ASSERT_EQ(db.warnings.size(), 1u);
  EXPECT_EQ(db.warnings[0], "db.txt:8: signature name 'Test.Md5' is also used at db.txt:7 for the same data");
}

TEST(Database, RejectsWithLocation) {
  const struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"ok crc 1 1\nbad", "db:2: signature 'bad' has no kind"},
      {"x crc 0 1", "db:1: crc column must be a number from 1 to 37"},
      {"x crc 38 1", "db:1: crc column must be a number from 1 to 37"},
      {"x crc 1 0x100000000", "db:1: crc value must be 1 to 8 hex digits (0x optional), not '0x100000000'"},
      {"x crc 1 -1", "db:1: crc value must be 1 to 8 hex digits"},
      {"x crc 1 0x0", "db:1: crc value 0 matches every file"},
      {"x md5 44d88612fea8a8f36de82e1278abb02f -1", "db:1: md5 size must be a byte count"},
      {"x crc 1 2 3", "db:1: unexpected text after the crc value"},
      {"x pattern", "db:1: pattern is empty"},
      {"x md5 1234", "db:1: md5 must be 32 hexadecimal digits"},
      {"x md5 44d88612fea8a8f36de82e1278abb0zz", "db:1: md5 must be 32 hexadecimal digits"},
      {"x sha1 00", "db:1: unknown signature kind 'sha1'"},
      {"bad$name crc 1 1", "db:1: invalid character in signature name 'bad$name'"},
      {"\xEF\xBB\xBFx crc 1 1", "db:1: invalid character in signature name '<U+FEFF byte-order mark>x'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    Database db;
    std::string error;
    EXPECT_FALSE(ParseDatabase(c.text, "db", db, error));
    EXPECT_EQ(error.rfind(c.error, 0), 0u) << error;  // starts with it
    EXPECT_TRUE(db.signatures.empty());  // nothing half-loaded
  }
}

TEST(Database, DefaultDatabaseParses) {
  Database db;
  std::string error;
  ASSERT_TRUE(ParseDatabase(vrk::scan::DefaultDatabaseText(), "default", db, error)) << error;
  EXPECT_GE(db.signatures.size(), 3u);
  EXPECT_EQ(vrk::scan::TestFileString().size(), 68u);
}

}  // namespace
