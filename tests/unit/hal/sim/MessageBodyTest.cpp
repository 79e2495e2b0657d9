#include "hal/sim/MessageBody.h"

#include <gtest/gtest.h>

#include "hal/sim/CommandError.h"

namespace {

using halsim::ParseMessageBody;

std::string Nested(int depth) {
  std::string text;
  for (int level = 0; level < depth; ++level) text += '(';
  text += '1';
  for (int level = 0; level < depth; ++level) text += ",)";
  return text;
}

TEST(MessageBody, IsATupleOrNothing) {
  EXPECT_EQ(ParseMessageBody(""), nullptr);
  const struct {
    const char* text;
    const char* type;
  } kTable[] = {
      {"()", "()"},
      {"(5,)", "(i)"},
      {"('a', uint32 42, true)", "(sub)"},
      {"(3, [('x', false, false)])", "(ia(sbb))"},
      {"(@as [],)", "(as)"},
      {"(<1>,)", "(v)"},
      {" (1,) ", "(i)"},
  };
  for (const auto& [text, type] : kTable) {
    const glib::VariantPointer body = ParseMessageBody(text);
    ASSERT_NE(body, nullptr) << text;
    EXPECT_STREQ(g_variant_get_type_string(body.get()), type) << text;
  }
}

TEST(MessageBody, WhatTheBusWouldNotCarryIsRefused) {
  const struct {
    std::string text;
    std::string error;  // a part of it
  } kTable[] = {
      {"5", "the value is not a tuple: a tuple of one is written (VALUE,)"},
      {"[1]", "the value is not a tuple"},
      {"(", ""},
      {"(1", ""},
      {"(1) (2)", ""},
      {"(,)", ""},
      {"('a)", ""},
      {"([],)", ""},
      {"(@ms nothing,)", "a message cannot carry the type (ms)"},
      {Nested(33), "the value is nested too deeply"},
  };
  for (const auto& [text, error] : kTable) {
    std::string reported = "nothing";
    try {
      ParseMessageBody(text);
    } catch (const halsim::CommandError& refused) {
      reported = refused.what();
    }
    EXPECT_NE(reported, "nothing") << text;
    EXPECT_NE(reported.find(error), std::string::npos) << text << ": " << reported;
  }
  EXPECT_NO_THROW(ParseMessageBody(Nested(32)));
}

}  // namespace
