#include "sharing/NfsServiceMessage.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using tBytes = std::vector<uint8_t>;

/// The announcement of a read-only volume at "/media/sda1" without key, named "Maps".
const tBytes kGolden = {
    0x78, 0x56, 0x34, 0x12,                                        // magic
    1,    0,                                                       // version
    1,    0,                                                       // type
    0xE8, 0x03,                                                    // 1000
    1,    0,                                                       // media type
    1,    0,                                                       // read-only
    12,   0,    1,    0,    5,   0,                                // lengths
    '/',  'm',  'e',  'd',  'i', 'a', '/', 's', 'd', 'a', '1', 0,  // path
    0,                                                             // key
    'M',  'a',  'p',  's',  0,                                     // friendly name
};

NFS_DATA_T Service(std::string path, std::string key, std::string friendlyName) {
  NFS_DATA_T service;
  service.path = std::move(path);
  service.mediaType = MEDIA_TYPE_T::kVolume;
  service.key = std::move(key);
  service.friendlyName = std::move(friendlyName);
  return service;
}

tBytes Built(uint16_t type, const NFS_DATA_T& service) {
  CNfsServiceMessage message;
  message.Set(type, service);
  const auto datagram = message.Datagram();
  return tBytes(datagram.begin(), datagram.end());
}

TEST(NfsServiceMessage, IsExactlyTheseBytes) {
  NFS_DATA_T service = Service("/media/sda1", "", "Maps");
  service.readOnly = true;
  EXPECT_EQ(Built(kServiceAnnounced, service), kGolden);
  EXPECT_EQ(kGolden.size(), 38U);
}

TEST(NfsServiceMessage, EachFieldHasItsOwnPlace) {
  const struct {
    size_t offset;
    uint8_t byte;
    void (*change)(NFS_DATA_T&, uint16_t&);
  } cases[] = {
      {6, 2, [](NFS_DATA_T&, uint16_t& type) { type = kServiceWithdrawn; }},
      {10, 0,
       [](NFS_DATA_T& service, uint16_t&) { service.mediaType = MEDIA_TYPE_T::kInternalDisk; }},
      {12, 0, [](NFS_DATA_T& service, uint16_t&) { service.readOnly = false; }},
  };
  for (const auto& [offset, byte, change] : cases) {
    NFS_DATA_T service = Service("/media/sda1", "", "Maps");
    service.readOnly = true;
    uint16_t type = kServiceAnnounced;
    change(service, type);
    tBytes expected = kGolden;
    expected[offset] = byte;
    EXPECT_EQ(Built(type, service), expected) << offset;
  }
}

TEST(NfsServiceMessage, ContentIdAndSerialNumberAreNotTransmitted) {
  NFS_DATA_T service = Service("/media/sda1", "", "Maps");
  service.readOnly = true;
  service.contentId = "C-1";
  service.serialNumber = "S-1";
  service.spare = "x";
  EXPECT_EQ(Built(kServiceAnnounced, service), kGolden);
}

TEST(NfsServiceMessage, ComesBackAsItWasSet) {
  for (const std::string& key : {std::string(), std::string("0353445355303847802A5B1C4A00F3b1")}) {
    for (const bool readOnly : {false, true}) {
      NFS_DATA_T service = Service("/media/\xC3\xA4 b", key, "Chart & \"Port\"");
      service.readOnly = readOnly;
      CNfsServiceMessage message;
      ASSERT_TRUE(message.Decode(Built(kServiceWithdrawn, service)));
      EXPECT_EQ(message.GetMessageType(), kServiceWithdrawn);
      EXPECT_EQ(message.GetPath(), service.path);
      const NFS_DATA_T& decoded = *message.GetNfsServiceDataPtr();
      EXPECT_EQ(decoded.path, service.path);
      EXPECT_EQ(decoded.mediaType, service.mediaType);
      EXPECT_EQ(decoded.key, service.key);
      EXPECT_EQ(decoded.friendlyName, service.friendlyName);
      EXPECT_EQ(decoded.readOnly, readOnly);
      EXPECT_EQ(decoded.contentId, "");
      EXPECT_EQ(decoded.serialNumber, "");
      EXPECT_EQ(decoded.spare, "");
    }
  }
}

TEST(NfsServiceMessage, OfAnyLengthButTooShortIsReadAsFarAsItGoes) {
  for (size_t length = 0; length <= kGolden.size(); ++length) {
    // On the heap and of exactly this size, so that a sanitizer sees every byte too many.
    const tBytes prefix(kGolden.begin(),
                        kGolden.begin() + static_cast<tBytes::difference_type>(length));
    CNfsServiceMessage message;
    ASSERT_EQ(message.Decode(prefix), length >= 21) << length;
    if (length < 21) continue;
    const NFS_DATA_T& decoded = *message.GetNfsServiceDataPtr();
    EXPECT_EQ(decoded.path, std::string("/media/sda1").substr(0, length - 20)) << length;
    EXPECT_EQ(decoded.key, "") << length;
    EXPECT_EQ(decoded.friendlyName, length <= 33 ? "" : std::string("Maps").substr(0, length - 33))
        << length;
  }
}

TEST(NfsServiceMessage, OneByteMoreChangesNothing) {
  tBytes longer = kGolden;
  longer.push_back('x');
  CNfsServiceMessage message;
  ASSERT_TRUE(message.Decode(longer));
  EXPECT_EQ(message.GetNfsServiceDataPtr()->friendlyName, "Maps");
}

TEST(NfsServiceMessage, OfAnotherMagicIsRefused) {
  for (size_t byte = 0; byte < 4; ++byte) {
    for (int bit = 0; bit < 8; ++bit) {
      tBytes changed = kGolden;
      changed[byte] = static_cast<uint8_t>(changed[byte] ^ (1 << bit));
      CNfsServiceMessage message;
      EXPECT_FALSE(message.Decode(changed));
    }
  }
  tBytes bigEndian = kGolden;
  std::swap(bigEndian[0], bigEndian[3]);
  std::swap(bigEndian[1], bigEndian[2]);
  CNfsServiceMessage message;
  EXPECT_FALSE(message.Decode(bigEndian));
}

TEST(NfsServiceMessage, VersionAndTheConstantAreNotChecked) {
  tBytes changed = kGolden;
  for (const size_t offset : {4U, 5U, 8U, 9U}) changed[offset] = 0xFF;
  CNfsServiceMessage message;
  ASSERT_TRUE(message.Decode(changed));
  EXPECT_EQ(message.GetPath(), "/media/sda1");
}

TEST(NfsServiceMessage, TypeAndMediaTypeArePassedOnWhateverTheyAre) {
  tBytes changed = kGolden;
  changed[6] = 0xCD;
  changed[7] = 0xAB;
  changed[10] = 0x34;
  changed[11] = 0x12;
  CNfsServiceMessage message;
  ASSERT_TRUE(message.Decode(changed));
  EXPECT_EQ(message.GetMessageType(), 0xABCD);
  EXPECT_EQ(static_cast<int32_t>(message.GetNfsServiceDataPtr()->mediaType), 0x1234);
}

TEST(NfsServiceMessage, AnythingButZeroIsReadOnly) {
  const struct {
    uint8_t low;
    uint8_t high;
    bool readOnly;
  } cases[] = {{0, 0, false}, {1, 0, true}, {2, 0, true}, {0, 1, true}, {0xFF, 0xFF, true}};
  for (const auto& [low, high, readOnly] : cases) {
    tBytes changed = kGolden;
    changed[12] = low;
    changed[13] = high;
    CNfsServiceMessage message;
    ASSERT_TRUE(message.Decode(changed));
    EXPECT_EQ(message.GetNfsServiceDataPtr()->readOnly, readOnly);
  }
}

TEST(NfsServiceMessage, LengthsThatLieOnlyMoveTheTexts) {
  const struct {
    uint16_t l1;
    uint16_t l2;
    const char* key;
    const char* friendlyName;
  } cases[] = {
      {0, 0, "/media/sda1", "/media/sda1"},
      {1, 0, "media/sda1", "media/sda1"},
      {13, 0, "Maps", "Maps"},
      {18, 0, "", ""},
      {0xFFFF, 0, "", ""},
      {0xFFFF, 0xFFFF, "", ""},
      {12, 0xFFFF, "", ""},
      {13, 2, "Maps", "ps"},
  };
  for (const auto& [l1, l2, key, friendlyName] : cases) {
    tBytes changed = kGolden;
    changed[14] = static_cast<uint8_t>(l1);
    changed[15] = static_cast<uint8_t>(l1 >> 8);
    changed[16] = static_cast<uint8_t>(l2);
    changed[17] = static_cast<uint8_t>(l2 >> 8);
    CNfsServiceMessage message;
    ASSERT_TRUE(message.Decode(changed));
    EXPECT_EQ(message.GetPath(), "/media/sda1");
    EXPECT_EQ(message.GetNfsServiceDataPtr()->key, key) << l1 << " " << l2;
    EXPECT_EQ(message.GetNfsServiceDataPtr()->friendlyName, friendlyName) << l1 << " " << l2;
  }
}

TEST(NfsServiceMessage, FitsUpToTheWholeBuffer) {
  const size_t room = CNfsServiceMessage::kMaxBytes - 20 - 3;
  const NFS_DATA_T longest = Service(std::string(room - 3, 'p'), "k", "nn");
  const NFS_DATA_T longer = Service(std::string(room - 2, 'p'), "k", "nn");
  EXPECT_TRUE(CNfsServiceMessage::Fits(longest));
  EXPECT_FALSE(CNfsServiceMessage::Fits(longer));
  const tBytes datagram = Built(kServiceAnnounced, longest);
  EXPECT_EQ(datagram.size(), CNfsServiceMessage::kMaxBytes);
  CNfsServiceMessage message;
  ASSERT_TRUE(message.Decode(datagram));
  EXPECT_EQ(message.GetPath(), longest.path);
  EXPECT_EQ(message.GetNfsServiceDataPtr()->friendlyName, "nn");
}

TEST(NfsServiceMessageDeathTest, AServiceThatDoesNotFitIsAProgrammingError) {
  const NFS_DATA_T service = Service(std::string(CNfsServiceMessage::kMaxBytes, 'p'), "", "");
  EXPECT_DEATH(static_cast<void>(Built(kServiceAnnounced, service)),
               "voldrake: NfsServiceMessage:[0-9]+: .*Set.*: Assertion `Fits\\(service\\)' failed");
}

TEST(NfsServiceMessageDeathTest, NothingIsReadBeforeADecodeThatSucceeded) {
  CNfsServiceMessage message;
  const char* const fault =
      "NfsServiceMessage:[0-9]+: .*: Assertion `m_MessageDecoded == true' failed";
  EXPECT_DEATH(static_cast<void>(message.GetMessageType()), fault);
  EXPECT_DEATH(static_cast<void>(message.GetPath()), fault);
  EXPECT_DEATH(static_cast<void>(message.GetNfsServiceDataPtr()), fault);
  ASSERT_TRUE(message.Decode(kGolden));
  ASSERT_FALSE(message.Decode(tBytes(20)));
  EXPECT_DEATH(static_cast<void>(message.GetPath()), fault);
}

}  // namespace
