#include "server/CommandWords.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using ReplayServer::QuoteCommandWord;
using ReplayServer::SenderCommandLine;
using ReplayServer::SplitCommandWords;
typedef std::vector<std::string> Words;

Words Split(const std::string& line) {
    Words words;
    EXPECT_TRUE(SplitCommandWords(line, words)) << line;
    return words;
}

TEST(CommandWordsTest, QuotedWordsKeepBlanksQuotesAndBackslashes) {
    EXPECT_EQ(Split("  replay\t/fs/usb0/LOG.DAT  --segment 2 "),
              (Words{"replay", "/fs/usb0/LOG.DAT", "--segment", "2"}));
    EXPECT_EQ(Split("replay \"/data/drive 1/LOG.DAT\" --from 3"),
              (Words{"replay", "/data/drive 1/LOG.DAT", "--from", "3"}));
    for (const std::string word :
         {"", " ", "a b", "say \"hi\"", "back\\slash", "\"", "end\\", "tab\there"}) {
        EXPECT_EQ(Split("replay " + QuoteCommandWord(word) + " x"), (Words{"replay", word, "x"}))
            << QuoteCommandWord(word);
    }
    EXPECT_EQ(QuoteCommandWord("/plain/path"), "/plain/path");
    Words words;
    EXPECT_FALSE(SplitCommandWords("replay \"/no/end", words));
}

TEST(CommandWordsTest, TheSenderMakesTheReplayFileAbsolute) {
    char here[4096];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    const std::string cwd = here;
    std::string line;
    ASSERT_TRUE(SenderCommandLine({"replay --from 5 \"a b.dat\""}, line).IsOk());
    EXPECT_EQ(Split(line), (Words{"replay", "--from", "5", cwd + "/a b.dat"}));
    ASSERT_TRUE(SenderCommandLine({"replay", "--clients", "gps,can", "--to", "9", "d.dat",
                                   "--report", "out/r.json"},
                                  line)
                    .IsOk());
    EXPECT_EQ(Split(line), (Words{"replay", "--clients", "gps,can", "--to", "9", cwd + "/d.dat",
                                  "--report", cwd + "/out/r.json"}));
    ASSERT_TRUE(SenderCommandLine({"status --json"}, line).IsOk());
    EXPECT_EQ(line, "status --json");
    EXPECT_FALSE(SenderCommandLine({"replay \"open"}, line).IsOk());
    EXPECT_FALSE(SenderCommandLine({}, line).IsOk());
}

}  // namespace
