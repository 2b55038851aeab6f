#include "hos/linux/schedule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>

namespace hos_linux {
namespace {

std::string Resolved(const std::string& schedule, const std::string& serial = "NL00000001A") {
  return ResolveSchedule(schedule, serial, "zomi/job").value_or("refused");
}

// The values that one field takes over many devices.
std::map<int, int> Drawn(const std::string& schedule, std::size_t field, int devices) {
  std::map<int, int> counts;
  for (int i = 0; i < devices; ++i) {
    std::string text = Resolved(schedule, "SN" + std::to_string(i));
    for (std::size_t skip = 0; skip < field; ++skip) text = text.substr(text.find(' ') + 1);
    ++counts[std::stoi(text)];
  }
  return counts;
}

std::set<int> Values(const std::map<int, int>& counts) {
  std::set<int> values;
  for (const auto& [value, count] : counts) values.insert(value);
  return values;
}

std::set<int> Range(int low, int high) {
  std::set<int> values;
  for (int value = low; value <= high; ++value) values.insert(value);
  return values;
}

TEST(Schedule, PlainFieldsComeOutAsNumbers) {
  EXPECT_EQ(Resolved("* * * * *"), "* * * * *");
  EXPECT_EQ(Resolved("0 9 1 1 0"), "0 9 1 1 0");
  EXPECT_EQ(Resolved("59 23 31 12 7"), "59 23 31 12 7");
  EXPECT_EQ(Resolved(" \t5,10-20,30-40/5  */2\t*  jan,Mar-DEC  mon-fri "),
            "5,10-20,30-40/5 */2 * 1,3-12 1-5");
  EXPECT_EQ(Resolved("05 00 01 01 00"), "5 0 1 1 0");
}

TEST(Schedule, TheDefaultOfTheRecord) {
  for (int i = 0; i < 200; ++i) {
    const std::string text = Resolved("~ 9~16 * * 1~5", "SN" + std::to_string(i));
    EXPECT_THAT(text, testing::MatchesRegex("([0-9]|[1-5][0-9]) (9|1[0-6]) [*] [*] [1-5]"));
  }
}

TEST(Schedule, EachFormDrawsFromItsWholeRange) {
  EXPECT_EQ(Values(Drawn("~ * * * *", 0, 3000)), Range(0, 59));
  EXPECT_EQ(Values(Drawn("* 20~ * * *", 1, 500)), Range(20, 23));
  EXPECT_EQ(Values(Drawn("* * ~3 * *", 2, 500)), Range(1, 3));
  EXPECT_EQ(Values(Drawn("* * ~ * *", 2, 2000)), Range(1, 31));
  EXPECT_EQ(Values(Drawn("* * * ~ *", 3, 1000)), Range(1, 12));
  EXPECT_EQ(Values(Drawn("* * * feb~apr *", 3, 500)), Range(2, 4));
  EXPECT_EQ(Values(Drawn("* * * * mon~fri", 4, 500)), Range(1, 5));
  EXPECT_EQ(Values(Drawn("7~7 * * * *", 0, 10)), Range(7, 7));
}

TEST(Schedule, SundayCountsOnce) {
  EXPECT_EQ(Values(Drawn("* * * * ~", 4, 1000)), Range(0, 6));
  EXPECT_EQ(Values(Drawn("* * * * 0~7", 4, 1000)), Range(0, 6));
  EXPECT_EQ(Values(Drawn("* * * * 1~7", 4, 1000)), Range(0, 6));
  EXPECT_EQ(Values(Drawn("* * * * 5~", 4, 500)), Range(5, 6));
  EXPECT_EQ(Values(Drawn("* * * * 7~", 4, 50)), Range(0, 0));
  for (const auto& [weekday, count] : Drawn("* * * * 0~7", 4, 70000)) {
    EXPECT_NEAR(count, 10000, 600) << weekday;
  }
}

TEST(Schedule, DevicesAreSpreadEvenly) {
  for (const auto& [minute, count] : Drawn("~ * * * *", 0, 60000)) {
    EXPECT_NEAR(count, 1000, 200) << minute;
  }
}

TEST(Schedule, TheSameDeviceAndJobGetTheSameValues) {
  EXPECT_EQ(Resolved("~ ~ ~ ~ ~"), Resolved("~ ~ ~ ~ ~"));
  std::set<std::string> by_job;
  for (int i = 0; i < 20; ++i) {
    by_job.insert(*ResolveSchedule("~ ~ ~ * *", "SN", "job" + std::to_string(i)));
  }
  EXPECT_GT(by_job.size(), 15U);
}

TEST(Schedule, TheItemsOfAListAreDrawnApart) {
  bool differ = false;
  for (int i = 0; i < 50; ++i) {
    const std::string text = Resolved("~,~ * * * *", "SN" + std::to_string(i));
    const std::size_t comma = text.find(',');
    differ = differ || text.substr(0, comma) != text.substr(comma + 1, text.find(' ') - comma - 1);
  }
  EXPECT_TRUE(differ);
}

TEST(Schedule, AnythingElseIsRefused) {
  for (const char* schedule : {"",
                               " ",
                               "* * * *",
                               "* * * * * *",
                               "@daily",
                               "@reboot",
                               "60 * * * *",
                               "* 24 * * *",
                               "* * 0 * *",
                               "* * 32 * *",
                               "* * * 0 *",
                               "* * * 13 *",
                               "* * * * 8",
                               "-1 * * * *",
                               "0~99 * * * *",
                               "99~ * * * *",
                               "~60 * * * *",
                               "30~20 * * * *",
                               "* * * * 6~1",
                               "30-20 * * * *",
                               "* * * * sat-sun",
                               "0-60 * * * *",
                               "5/10 * * * *",
                               "*/0 * * * *",
                               "*/60 * * * *",
                               "*/ * * * *",
                               "*/-1 * * * *",
                               "~/5 * * * *",
                               "1~5/2 * * * *",
                               "1~2~3 * * * *",
                               "1-2-3 * * * *",
                               ", * * * *",
                               "1, * * * *",
                               ",1 * * * *",
                               "1,,2 * * * *",
                               "jan * * * *",
                               "* * * mon *",
                               "* * * * jan",
                               "* * * janu *",
                               "* * * anf *",
                               "+1 * * * *",
                               "0x1 * * * *",
                               "1.5 * * * *",
                               "99999999999 * * * *",
                               "** * * * *",
                               "*-5 * * * *",
                               "? * * * *",
                               "L * * * *",
                               "1 2 3 4 5 root rm",
                               "* * * * *\n* * * * * root rm",
                               "*\n* * * *",
                               "* * * * *\r",
                               "* * * * *\v",
                               "%s * * * *",
                               "$(x) * * * *",
                               "1;2 * * * *",
                               "\xef\xbc\x91 * * * *"}) {
    EXPECT_EQ(Resolved(schedule), "refused") << schedule;
  }
  EXPECT_EQ(Resolved(std::string("* * * * *\0", 10)), "refused");
  EXPECT_EQ(Resolved(std::string(100000, '1') + " * * * *"), "refused");
}

TEST(Schedule, NothingButScheduleCharactersEverComesOut) {
  const std::string alphabet = "0179*~-/,anmo \t\n%'\"$;";
  unsigned state = 1;
  for (int i = 0; i < 200000; ++i) {
    std::string text;
    for (int n = 0; n < 12; ++n) {
      state = state * 1664525U + 1013904223U;
      text += alphabet[(state >> 16) % alphabet.size()];
    }
    const std::string resolved = Resolved(text);
    if (resolved == "refused") continue;
    EXPECT_EQ(resolved.find_first_not_of("0123456789*-/, "), std::string::npos) << text;
    EXPECT_EQ(std::count(resolved.begin(), resolved.end(), ' '), 4) << text;
  }
}

}  // namespace
}  // namespace hos_linux
