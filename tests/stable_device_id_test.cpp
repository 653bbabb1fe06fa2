// Device IDs derived from UIDs: the same in every process, audio and video apart, and collisions
// settled the same way whoever sees them.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"

namespace harkwell {
namespace {

// Two UIDs whose home slot in the audio space is the same (slot 8130), found by search.
const std::string kCollidingFirst = "alsa_input.collide.188";
const std::string kCollidingSecond = "alsa_input.collide.294";
// A UID whose home is the slot after theirs (8131).
const std::string kNextSlot = "wrap.8459";
// Two UIDs whose home is the audio space's last slot (32767).
const std::string kLastSlotFirst = "wrap.167099";
const std::string kLastSlotSecond = "wrap.34542";

constexpr ObjectID AudioIDOfSlot(std::uint32_t slot) {
  return 0x10000 + 2 * slot;
}

TEST(StableDeviceIDTest, TheHomeIDIsFixedByTheUIDAlone) {
  // Written down once: any change to the rule changes the IDs users have copied.
  EXPECT_EQ(StableDeviceIDHome(StableIDSpace::Audio, "harkwell_null_source"), 69546u);
  EXPECT_EQ(StableDeviceIDHome(StableIDSpace::Audio, "harkwell_null_sink"), 96006u);
  EXPECT_EQ(StableDeviceIDHome(StableIDSpace::Audio, ""), 83530u);
  EXPECT_EQ(StableDeviceIDHome(StableIDSpace::Video, "usb:046d:0825:A1B2C3@1-2:1.0"), 145319u);
  EXPECT_EQ(StableDeviceIDHome(StableIDSpace::Audio, kCollidingFirst), AudioIDOfSlot(8130));
  EXPECT_EQ(StableDeviceIDHome(StableIDSpace::Audio, kCollidingSecond), AudioIDOfSlot(8130));
}

TEST(StableDeviceIDTest, AudioIDsAreEvenAndAudioAndVideoSpacesAreApart) {
  const auto audio = StableIDLayoutOf(StableIDSpace::Audio);
  const auto video = StableIDLayoutOf(StableIDSpace::Video);
  const ObjectID lastAudio = audio.firstID + (audio.slotCount - 1) * audio.stride;
  const ObjectID lastVideo = video.firstID + (video.slotCount - 1) * video.stride;
  EXPECT_EQ(audio.firstID, 65536u);
  EXPECT_EQ(lastAudio, 131070u);
  EXPECT_EQ(video.firstID, 131072u);
  EXPECT_EQ(lastVideo, 196607u);
  EXPECT_LT(lastAudio, video.firstID);
  EXPECT_LT(lastVideo, 1u << 21) << "room for stream IDs made by shifting a device ID by 10 bits";
  EXPECT_GT(audio.firstID, kAudioObjectSystemObject);

  EXPECT_TRUE(IsStableDeviceID(StableIDSpace::Audio, 65536));
  EXPECT_FALSE(IsStableDeviceID(StableIDSpace::Audio, 65537)) << "left to the device's stream";
  EXPECT_TRUE(IsStableDeviceID(StableIDSpace::Audio, 131070));
  EXPECT_FALSE(IsStableDeviceID(StableIDSpace::Audio, 131072));
  EXPECT_FALSE(IsStableDeviceID(StableIDSpace::Audio, 1));
  EXPECT_FALSE(IsStableDeviceID(StableIDSpace::Video, 131071));
  EXPECT_TRUE(IsStableDeviceID(StableIDSpace::Video, 131072));
  EXPECT_TRUE(IsStableDeviceID(StableIDSpace::Video, 196607));
  EXPECT_FALSE(IsStableDeviceID(StableIDSpace::Video, 196608));

  for (const char* uid : {"a", "alsa_input.usb-0d8c_C-Media-00.mono-fallback", "bluez_output.x"}) {
    EXPECT_TRUE(
        IsStableDeviceID(StableIDSpace::Audio, StableDeviceIDHome(StableIDSpace::Audio, uid)));
    EXPECT_TRUE(
        IsStableDeviceID(StableIDSpace::Video, StableDeviceIDHome(StableIDSpace::Video, uid)));
  }
}

TEST(StableDeviceIDTest, DevicesWithoutCollisionsGetTheirHomeIDs) {
  const std::vector<std::string> uids = {"harkwell_null_source", "harkwell_null_sink"};
  EXPECT_EQ(AssignStableDeviceIDs(StableIDSpace::Audio, uids),
            (std::vector<ObjectID>{69546, 96006}));
  EXPECT_TRUE(AssignStableDeviceIDs(StableIDSpace::Audio, {}).empty());
}

TEST(StableDeviceIDTest, OneDeviceHasTheSameIDWhateverElseIsPresent) {
  const ObjectID alone = AssignStableDeviceIDs(StableIDSpace::Audio, {"mic"})[0];
  const auto crowd = AssignStableDeviceIDs(StableIDSpace::Audio, {"speaker", "mic", "headset"});
  EXPECT_EQ(crowd[1], alone);
}

TEST(StableDeviceIDTest, ACollisionGivesTheUIDThatSortsFirstItsHomeAndTheNextTheFollowingSlot) {
  const auto ids = AssignStableDeviceIDs(StableIDSpace::Audio, {kCollidingSecond, kCollidingFirst});
  EXPECT_EQ(ids, (std::vector<ObjectID>{AudioIDOfSlot(8131), AudioIDOfSlot(8130)}));
  // Whatever order a process lists them in.
  EXPECT_EQ(AssignStableDeviceIDs(StableIDSpace::Audio, {kCollidingFirst, kCollidingSecond}),
            (std::vector<ObjectID>{AudioIDOfSlot(8130), AudioIDOfSlot(8131)}));
}

TEST(StableDeviceIDTest, ProbingSkipsSlotsThatOthersHold) {
  // The device at home in slot 8131 keeps it; the second of the colliding pair moves on to 8132.
  const auto ids =
      AssignStableDeviceIDs(StableIDSpace::Audio, {kCollidingSecond, kNextSlot, kCollidingFirst});
  ASSERT_LT(kCollidingSecond, kNextSlot) << "the probe meets a slot taken by a UID sorting later";
  EXPECT_EQ(ids,
            (std::vector<ObjectID>{AudioIDOfSlot(8131), AudioIDOfSlot(8132), AudioIDOfSlot(8130)}));
}

TEST(StableDeviceIDTest, ProbingWrapsRoundTheEndOfTheSpace) {
  const auto ids = AssignStableDeviceIDs(StableIDSpace::Audio, {kLastSlotSecond, kLastSlotFirst});
  EXPECT_EQ(ids, (std::vector<ObjectID>{AudioIDOfSlot(0), AudioIDOfSlot(32767)}));
}

TEST(StableDeviceIDTest, EqualUIDsEachGetAnIDInTheCallersOrder) {
  const auto ids = AssignStableDeviceIDs(StableIDSpace::Audio, {"same", "same"});
  const ObjectID home = StableDeviceIDHome(StableIDSpace::Audio, "same");
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_EQ(ids[0], home);
  EXPECT_EQ(ids[1], home + 2);
}

TEST(StableDeviceIDTest, EveryDeviceOfAFullSpaceGetsItsOwnIDAndNoneBeyond) {
  const auto layout = StableIDLayoutOf(StableIDSpace::Audio);
  std::vector<std::string> uids;
  for (std::uint32_t i = 0; i <= layout.slotCount; ++i)
    uids.push_back("device-" + std::to_string(i));
  const auto ids = AssignStableDeviceIDs(StableIDSpace::Audio, uids);
  std::set<ObjectID> distinct;
  std::size_t withoutID = 0;
  for (ObjectID id : ids) {
    if (id == 0) {
      ++withoutID;
      continue;
    }
    EXPECT_TRUE(IsStableDeviceID(StableIDSpace::Audio, id));
    distinct.insert(id);
  }
  EXPECT_EQ(distinct.size(), layout.slotCount);
  EXPECT_EQ(withoutID, 1u);
}

}  // namespace
}  // namespace harkwell
