#include <gtest/gtest.h>

#include <random>
#include <string>

#include "tools/monitor/Message.h"

using tools::Message;
using tools::ParseMessage;

namespace {

const std::string kHead = R"(<message version="1" type="datasource"><content>)";
const std::string kTail = "</content></message>";
const std::string kAttributes =
    R"(path="/mnt/sda1" type="memorycard" key="00ff" contentid="C 1" serialnumber="S-2" )"
    R"(friendlyname="Memory Card - 1" remote="true" readonly="false" fixed="true")";
const std::string kArrival = kHead + "<dataarrival " + kAttributes + " />" + kTail;
const std::string kRemoval = kHead + R"(<dataremoval path="/mnt/sda1"/>)" + kTail;

std::string With(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

std::string FaultOf(const std::string& text) {
  std::string fault;
  EXPECT_FALSE(ParseMessage(text, fault)) << text;
  return fault;
}

TEST(Message, AnArrivalHasEveryAttribute) {
  std::string fault;
  const auto message = ParseMessage(kArrival, fault);
  ASSERT_TRUE(message) << fault;
  EXPECT_TRUE(message->arrival);
  EXPECT_EQ(message->path, "/mnt/sda1");
  EXPECT_EQ(message->type, "memorycard");
  EXPECT_EQ(message->key, "00ff");
  EXPECT_EQ(message->contentId, "C 1");
  EXPECT_EQ(message->serialNumber, "S-2");
  EXPECT_EQ(message->friendlyName, "Memory Card - 1");
  EXPECT_TRUE(message->remote);
  EXPECT_FALSE(message->readOnly);
  EXPECT_TRUE(message->fixed);
}

TEST(Message, ARemovalHasThePathAlone) {
  std::string fault;
  const auto message = ParseMessage(kRemoval, fault);
  ASSERT_TRUE(message) << fault;
  EXPECT_FALSE(message->arrival);
  EXPECT_EQ(message->path, "/mnt/sda1");
}

TEST(Message, EscapesAreUndone) {
  std::string fault;
  const auto message =
      ParseMessage(With(kRemoval, "sda1", "&amp;&lt;&gt;&quot;&#39;&#xe9;&#9;&#10;"), fault);
  ASSERT_TRUE(message) << fault;
  EXPECT_EQ(message->path, "/mnt/&<>\"'\xE9\t\n");
}

TEST(Message, BytesFromEightyUpComeThroughAsTheyAre) {
  std::string high;
  for (int value = 0x80; value < 0x100; ++value) high += static_cast<char>(value);
  std::string fault;
  const auto message = ParseMessage(With(kArrival, "Memory Card - 1", high), fault);
  ASSERT_TRUE(message) << fault;
  EXPECT_EQ(message->friendlyName, high);
}

TEST(Message, EmptyValuesAreValues) {
  std::string fault;
  const auto message = ParseMessage(With(kArrival, "\"00ff\"", "\"\""), fault);
  ASSERT_TRUE(message) << fault;
  EXPECT_EQ(message->key, "");
}

TEST(Message, FaultsAreNamed) {
  const struct {
    std::string text;
    const char* fault;
  } kTable[] = {
      {With(kArrival, "00ff", "\t"), "it contains a control character (0x09)"},
      {With(kArrival, "00ff", "&#11;"), "it contains a control character (0x0b)"},
      {With(kArrival, "00ff", "<"), "there is a \"<\" inside a tag"},
      {With(kArrival, "\" key", "\"key"), "there is no blank before an attribute"},
      {With(kArrival, "00ff", "&#x20ac;"), "a character reference is above 255"},
      {With(kArrival, "key=\"00ff\" ", ""), "element \"dataarrival\" has no attribute \"key\""},
      {With(kArrival, "key=\"00ff\"", "key=\"a\" key=\"b\""), "attribute \"key\" occurs twice"},
      {With(kArrival, "key=", "more=\"\" key="),
       "element \"dataarrival\" has an attribute that does not belong there"},
      {With(kArrival, "memorycard", "floppy"),
       "element \"dataarrival\" has an attribute \"type\" that is neither \"memorycard\" nor "
       "\"harddrive\""},
      {With(kArrival, "\"true\"", "\"1\""),
       "element \"dataarrival\" has an attribute \"remote\" that is neither \"true\" nor "
       "\"false\""},
      {With(kRemoval, "path", "key=\"\" path"),
       "element \"dataremoval\" has an attribute that does not belong there"},
      {With(kRemoval, "<content>", "<content a=\"\">"),
       "element \"content\" has an attribute that does not belong there"},
      {With(kRemoval, "datarem", "dar"), "element \"daroval\" does not belong there"},
      {kHead + kTail, "an element is missing"},
      {kRemoval + kRemoval, "element \"message\" is one too many"},
      {With(kRemoval, "</content>", "<dataremoval path=\"\"/></content>"),
       "element \"dataremoval\" is one too many"},
      {With(kRemoval, "<content>", "<content>text"), "there is text outside the tags"},
      {With(kRemoval, "<content>", "<content><!-- -->"), "it contains a declaration or a comment"},
      {"<?xml version=\"1.0\"?>" + kRemoval, "it contains a declaration or a comment"},
  };
  for (const auto& row : kTable) EXPECT_EQ(FaultOf(row.text), row.fault) << row.text;
}

TEST(Message, WhatIsNoXmlIsRefused) {
  for (const std::string& text :
       {std::string(), std::string("text"), std::string("<"), std::string("<a"),
        std::string("</a>"), With(kRemoval, "</content>", ""), With(kRemoval, "sda1", "a\"b"),
        With(kRemoval, "sda1", "a & b"), With(kRemoval, "sda1", "&nbsp;"), kRemoval + "x",
        std::string("<\xE9/>")}) {
    const std::string fault = FaultOf(text);
    EXPECT_NE(fault, "") << text;
    for (const char c : fault) EXPECT_TRUE(c >= 0x20 && c < 0x7F) << fault;
  }
}

TEST(Message, EveryPrefixIsRefused) {
  for (const std::string& text : {kArrival, kRemoval}) {
    for (std::size_t length = 0; length < text.size(); ++length) {
      EXPECT_NE(FaultOf(text.substr(0, length)), "");
    }
  }
}

TEST(Message, DamagedTextsAreEitherReadOrRefusedWithAReason) {
  std::mt19937 random(2);
  for (int round = 0; round < 20000; ++round) {
    std::string text = kArrival;
    for (unsigned changes = 1 + random() % 4; changes > 0; --changes) {
      text[random() % text.size()] = static_cast<char>(random() % 256);
    }
    std::string fault;
    const bool isRead = ParseMessage(text, fault).has_value();
    ASSERT_EQ(isRead, fault.empty()) << text;
  }
}

}  // namespace
