// The FTP reply and listing parsers on their own, fed in pieces as a connection delivers them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/host/ftp/listing.h"
#include "platform/host/ftp/reply.h"

namespace {

// Feeds text in chunks of step bytes; the replies completed as "[code:text]", then "ERR" at an
// error.
std::string Replies(const std::string& text, size_t step) {
  std::string out, pending;
  FtpReplyParser p;
  for (size_t off = 0; off < text.size(); off += step) {
    pending += text.substr(off, step);
    for (;;) {
      size_t used = 0;
      FtpReplyParser::Status s = p.Feed(pending.data(), pending.size(), &used);
      pending.erase(0, used);
      if (s == FtpReplyParser::kError) return out + "ERR";
      if (s == FtpReplyParser::kNeedMore) break;
      out += "[" + std::to_string(p.reply().code) + ":" + p.reply().text + "]";
      p.Reset();
    }
  }
  return out;
}

TEST(FtpReplyParserTest, RepliesWhateverTheChunkingAndTheirBounds) {
  const std::string text = "220-a\r\n220-b\r\n 220 c\r\n220 d\r\n331 pw\n230\r\n";
  for (size_t step : {1, 2, 7, 100}) {
    EXPECT_EQ(Replies(text, step), "[220:220-a\n220-b\n 220 c\n220 d][331:331 pw][230:230]");
  }
  std::string many = "211-x\r\n";  // a reply over kFtpMaxReplyBytes
  for (int i = 0; i < 200; ++i) many += std::string(1000, 'y') + "\r\n";
  for (const std::string& bad : {std::string("620 bad class\r\n"), std::string("22 short\r\n"),
                                 std::string("220x\r\n"), many}) {
    EXPECT_EQ(Replies(bad, 4096), "ERR") << bad.substr(0, 20);
  }
  // The line length bound, to the byte.
  EXPECT_EQ(Replies("220 " + std::string(kFtpMaxReplyLine - 4, 'x') + "\r\n", 64).substr(0, 5),
            "[220:");
  EXPECT_EQ(Replies("220 " + std::string(kFtpMaxReplyLine - 3, 'x') + "\r\n", 64), "ERR");
}

TEST(FtpReplyParserTest, PassivePorts) {
  EXPECT_EQ(ParseEpsvPort("229 Entering Extended Passive Mode (|||6446|)"), 6446);
  EXPECT_EQ(ParseEpsvPort("229 ok (!!!1!)"), 1);
  EXPECT_EQ(ParseEpsvPort("229 ok (|||0|)"), -1);
  EXPECT_EQ(ParseEpsvPort("229 ok (|||65536|)"), -1);
  EXPECT_EQ(ParseEpsvPort("229 ok (||1|)"), -1);
  EXPECT_EQ(ParseEpsvPort("229 ok (|||12"), -1);
  EXPECT_EQ(ParsePasvPort("227 Entering Passive Mode (192,168,1,2,19,137)."), 19 * 256 + 137);
  EXPECT_EQ(ParsePasvPort("227 =127,0,0,1,4,1"), 1025);
  EXPECT_EQ(ParsePasvPort("227 (1,2,3,4,256,1)"), -1);
  EXPECT_EQ(ParsePasvPort("227 (1,2,3,4,5)"), -1);
  EXPECT_EQ(ParsePasvPort("227 (1,2,3,4,0,0)"), -1);
  EXPECT_TRUE(FeatOffersMlsd("211-Features:\n MDTM\n MLST type*;size*;\n211 End"));
  EXPECT_FALSE(FeatOffersMlsd("211-Features:\n MLSTX\n211 MLST"));
}

FtpListItem Line(const std::string& line, FtpListFormat fmt = FtpListFormat::kList) {
  FtpListItem item;
  if (!ParseFtpListLine(line.data(), line.size(), fmt, &item)) item.name = "<none>";
  return item;
}

TEST(FtpListingTest, UnixWindowsAndMlsdLines) {
  struct Case {
    std::string line;
    std::string name;
    int64_t size;
  } cases[] = {
      {"-rw-r--r--   1 owner group   1234 Jan 31 10:15 a.avi", "a.avi", 1234},
      {"-rw-r--r--   1 owner   99 Dec  1  2023 no group", "no group", 99},
      {"-rwxr-xr-x 1 1000 1000 0 feb 29 23:59  leading space", " leading space", 0},
      {"drwxr-xr-x   2 owner group   4096 Jan 31 10:15 dir", "<none>", 0},
      {"lrwxrwxrwx   1 owner group      7 Jan 31 10:15 ln -> a.avi", "<none>", 0},
      {"total 12", "<none>", 0},
      {"-rw-r--r-- 1 owner group 12x Jan 31 10:15 badsize", "<none>", 0},
      {"01-31-24  10:15PM              5678 win file.avi", "win file.avi", 5678},
      {"01-31-2024  22:15       <DIR>          folder", "<none>", 0},
      {"2024/01/31  22:15  42 iso.bin", "iso.bin", 42},
  };
  for (const Case& k : cases) {
    FtpListItem item = Line(k.line);
    EXPECT_EQ(item.name, k.name) << k.line;
    if (k.name != "<none>") {
      EXPECT_EQ(item.size, k.size) << k.line;
    }
  }
  EXPECT_EQ(Line("Type=FILE;Size=7;Modify=1; m.bin", FtpListFormat::kMlsd).size, 7);
  EXPECT_EQ(Line("type=dir;size=7; d", FtpListFormat::kMlsd).name, "<none>");
  FtpListItem noSize = Line("type=file;modify=1; e", FtpListFormat::kMlsd);
  EXPECT_EQ(noSize.name, "e");
  EXPECT_EQ(noSize.size, -1);
  EXPECT_EQ(Line("type=file;size=3;", FtpListFormat::kMlsd).name, "<none>");
}

TEST(FtpListingTest, LongLinesAndFilesWithoutSize) {
  FtpDirEntry_t entries[2];
  FtpListingParser p(FtpListFormat::kMlsd, "w", entries, 2);
  std::string text = "type=file;size=1; a\n";
  text += "type=file;size=2;" + std::string(kFtpMaxListLine + 10, 'x') + " w\n";  // skipped whole
  text += "type=file;modify=1; w\r\n";  // no size: left out, not kept as size 0
  text += "type=file;modify=1; b\r\ntype=file;size=3; c\r\ntype=file;size=4; d";
  for (char ch : text) p.Feed(&ch, 1);
  p.Finish();
  ASSERT_EQ(p.count(), 2);
  EXPECT_TRUE(p.wantedWithoutSize());
  p.KeepWanted(5);  // learnt from the server otherwise: takes the last slot when full
  p.KeepWanted(6);  // kept once
  EXPECT_FALSE(p.wantedWithoutSize());
  EXPECT_STREQ(entries[0].name, "a");
  EXPECT_STREQ(entries[1].name, "w");
  EXPECT_EQ(entries[1].size, 5);
  EXPECT_EQ(p.dropped(), 2);  // d, then c displaced by w
  EXPECT_FALSE(IsUsableFtpName(".", 1));
  EXPECT_TRUE(IsUsableFtpName("...", 3));
  EXPECT_FALSE(IsUsableFtpName("a\x7f", 2));
}

}  // namespace
