// Passive-mode replies, FEAT and single listing lines in their less common forms; replies and
// listings as a whole are checked through a session (ftp_session_test.cpp).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "platform/host/ftp/listing.h"
#include "platform/host/ftp/reply.h"

namespace {

TEST(FtpParsersTest, PassivePortsAndFeatures) {
  // A reply, and the port that ParseEpsvPort and ParsePasvPort read in it (or -1).
  // clang-format off
  for (auto [text, epsv, pasv] : std::vector<std::tuple<const char*, int, int>>{
      {"229 ok (!!!1!)", 1, -1}, {"229 ok (|||65535|)", 65535, -1}, {"229 ok (|||0|)", -1, -1},
      {"229 ok (|||65536|)", -1, -1}, {"229 ok (||1|)", -1, -1}, {"229 ok (|||12", -1, -1},
      {"229 ok (|||12|", -1, -1}, {"227 (1,2,3,4,256,1)", -1, -1}, {"227 (1,2,3,4,5)", -1, -1},
      {"227 (1,2,3,4,0,0)", -1, -1}, {"227 (1,2,3,4,0,1)", -1, 1},
      {"227 1,2,3,4,255,255.", -1, 65535}, {"227 (1,2,3,1000,1,2)", -1, -1}}) {
    // clang-format on
    EXPECT_EQ(ParseEpsvPort(text), epsv) << text;
    EXPECT_EQ(ParsePasvPort(text), pasv) << text;
  }
  EXPECT_TRUE(FeatOffersMlsd("211-Features:\n MDTM\n mlsd\n211 End"));
  EXPECT_FALSE(FeatOffersMlsd("211-Features:\n MLSTX\n211 MLST"));
}

TEST(FtpParsersTest, ListingLines) {
  // A line, the file it describes as "name:size" ("" when none), and whether it is MLSD.
  for (auto [line, want, mlsd] : std::vector<std::tuple<const char*, const char*, bool>>{
           {"-rw-r--r--   1 owner   99 Dec  1  2023 no group", "no group:99", false},
           {"-rwxr-xr-x 1 1000 1000 0 feb 29 23:59  leading space", " leading space:0", false},
           {"-rw-r--r-- 1 o 99999999999999999999999 Jan 1 10:15 h", "h:4611686018427387904", false},
           {"drwxr-xr-x   2 owner group   4096 Jan 31 10:15 dir", "", false},
           {"lrwxrwxrwx   1 owner group      7 Jan 31 10:15 ln -> a.avi", "", false},
           {"total 12", "", false},
           {"-rw-r--r-- 1 owner group 12x Jan 31 10:15 badsize", "", false},
           {"-rw-r--r-- 1 owner group 12 Jan 31 10:15", "", false},
           {"-rw-r-- 1 owner group 12 Jan 31 10:15 short mode", "", false},
           {"01-31-24  10:15PM              5678 win file.avi", "win file.avi:5678", false},
           {"01-31-2024  22:15       <DIR>          folder", "", false},
           {"2024/01/31  22:15  42 iso.bin", "iso.bin:42", false},
           {"1-1-1  10:15PM  42 short date", "", false},
           {"Type=FILE;Size=7;Modify=1; m.bin", "m.bin:7", true},
           {"type=file;size=7", "", true},
           {"type=file;size=3; ", "", true}}) {
    FtpListItem item;
    FtpListFormat format = mlsd ? FtpListFormat::kMlsd : FtpListFormat::kList;
    bool file = ParseFtpListLine(line, strlen(line), format, &item);
    EXPECT_EQ(file ? item.name + ":" + std::to_string(item.size) : "", want) << line;
  }
}

}  // namespace
