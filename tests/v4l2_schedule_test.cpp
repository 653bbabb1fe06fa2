// When the V4L2 service looks at the cameras' streams again after an open, while a node is held,
// and when it stops looking.
#include "HarkwellFoundation/Platform/Linux/V4L2/StreamCheckSchedule.h"

#include <gtest/gtest.h>

#include <vector>

namespace harkwell::v4l2 {
namespace {

using std::chrono::milliseconds;

// The delays the schedule gives, check after check, until it stops or `most` are taken.
std::vector<milliseconds> Delays(StreamCheckSchedule& schedule, bool someoneHolds,
                                 std::size_t most) {
  std::vector<milliseconds> delays;
  while (delays.size() < most) {
    const auto delay = schedule.next(someoneHolds);
    if (!delay) break;
    delays.push_back(std::chrono::duration_cast<milliseconds>(*delay));
  }
  return delays;
}

TEST(StreamCheckSchedule, NothingIsDueBeforeAnyOpenWhileNoNodeIsHeld) {
  StreamCheckSchedule schedule(milliseconds(5), milliseconds(20), milliseconds(100));
  EXPECT_EQ(schedule.next(false), std::nullopt);
}

TEST(StreamCheckSchedule, AfterAnOpenQuickChecksForTheSpanThenDoublingThenNothing) {
  StreamCheckSchedule schedule(milliseconds(5), milliseconds(20), milliseconds(100));
  schedule.restart();
  const std::vector<milliseconds> expected{milliseconds(5),  milliseconds(5),  milliseconds(5),
                                           milliseconds(5),  milliseconds(10), milliseconds(20),
                                           milliseconds(40), milliseconds(80), milliseconds(100)};
  EXPECT_EQ(Delays(schedule, false, 100), expected);
  EXPECT_EQ(schedule.checksAfterAnOpen(), expected.size());
  EXPECT_EQ(schedule.next(false), std::nullopt);
}

TEST(StreamCheckSchedule, WhileANodeIsHeldTheLongestDelayRepeats) {
  StreamCheckSchedule schedule(milliseconds(5), milliseconds(20), milliseconds(100));
  schedule.restart();
  const auto delays = Delays(schedule, true, 40);
  ASSERT_EQ(delays.size(), 40u);
  for (std::size_t i = schedule.checksAfterAnOpen(); i < delays.size(); ++i) {
    EXPECT_EQ(delays[i], milliseconds(100)) << "check " << i;
  }
  // Once nothing is held the checks owed to the open are long done.
  EXPECT_EQ(schedule.next(false), std::nullopt);
}

TEST(StreamCheckSchedule, AnotherOpenStartsTheQuickChecksAgain) {
  StreamCheckSchedule schedule(milliseconds(5), milliseconds(20), milliseconds(100));
  schedule.restart();
  Delays(schedule, true, 30);
  schedule.restart();
  EXPECT_EQ(schedule.next(true), milliseconds(5));
}

TEST(StreamCheckSchedule, ASpanShorterThanOneQuickDelayStillGivesOneQuickCheck) {
  StreamCheckSchedule schedule(milliseconds(5), milliseconds(0), milliseconds(20));
  schedule.restart();
  EXPECT_EQ(Delays(schedule, false, 10),
            (std::vector<milliseconds>{milliseconds(5), milliseconds(10), milliseconds(20)}));
}

}  // namespace
}  // namespace harkwell::v4l2
