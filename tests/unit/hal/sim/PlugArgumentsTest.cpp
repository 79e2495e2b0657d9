#include "hal/sim/PlugArguments.h"

#include <gtest/gtest.h>

#include "hal/sim/CommandError.h"

namespace {

using halsim::CommandError;
using halsim::ParseEdit;
using halsim::PlugArguments;
using Texts = std::vector<std::string>;

/// The text of the error that the operation ends with; empty without one.
template <typename tOperation>
std::string ErrorOf(tOperation operation) {
  try {
    operation();
  } catch (const CommandError& error) {
    return error.what();
  }
  return "";
}

TEST(PlugArguments, KeyAndValueAreDividedByTheFirstEqualsSign) {
  PlugArguments arguments({"label=a=b", "uuid=", "mounted", "=x"});
  EXPECT_EQ(arguments.Text("label"), "a=b");
  EXPECT_EQ(arguments.Text("uuid"), "");
  EXPECT_EQ(arguments.Text("mounted"), std::nullopt) << "a word without a value is a flag";
  EXPECT_EQ(arguments.Text("serial"), std::nullopt);
  EXPECT_EQ(arguments.Text(""), "x");
  EXPECT_TRUE(arguments.Flag("mounted"));
  EXPECT_FALSE(arguments.Flag("label"));
  EXPECT_FALSE(arguments.Flag("readonly"));
  EXPECT_NO_THROW(arguments.CheckAllUsed());
}

TEST(PlugArguments, AKeyThatIsGivenTwiceOrThatNobodyAsksForIsRefused) {
  const Texts twice[] = {{"a=1", "a=1"}, {"a", "a"}, {"a=1", "a"}};
  for (const Texts& words : twice) {
    EXPECT_EQ(ErrorOf([&] { PlugArguments{words}; }), R"("a" is given twice)");
  }
  PlugArguments arguments({"label=x", "readonly"});
  EXPECT_EQ(ErrorOf([&] { arguments.CheckAllUsed(); }), R"(unknown key "label")");
  static_cast<void>(arguments.Text("label"));
  EXPECT_EQ(ErrorOf([&] { arguments.CheckAllUsed(); }), R"(unknown key "readonly")");
  static_cast<void>(arguments.Text("readonly"));
  EXPECT_EQ(ErrorOf([&] { arguments.CheckAllUsed(); }), R"(unknown key "readonly")")
      << "asked for as a text, it is not used";
  static_cast<void>(arguments.Flag("readonly"));
  EXPECT_EQ(ErrorOf([&] { arguments.CheckAllUsed(); }), "");
}

TEST(PlugArguments, NumbersAreTakenWithinTheirLimits) {
  const struct {
    const char* text;
    std::optional<int> number;
  } kTable[] = {
      {"1", 1},
      {"16", 16},
      {"0x10", 16},
      {"0", std::nullopt},
      {"17", std::nullopt},
      {"-1", std::nullopt},
      {"", std::nullopt},
      {"x", std::nullopt},
      {"1x", std::nullopt},
      {"0x-1", std::nullopt},
      {"99999999999999999999", std::nullopt},
  };
  for (const auto& [text, number] : kTable) {
    PlugArguments arguments({std::string("luns=") + text});
    if (number) {
      EXPECT_EQ(arguments.Number("luns", 1, 16), number);
      EXPECT_NO_THROW(arguments.CheckAllUsed());
    } else {
      EXPECT_EQ(ErrorOf([&] { static_cast<void>(arguments.Number("luns", 1, 16)); }),
                std::string("luns=") + text + " is not a number from 1 to 16");
    }
    EXPECT_EQ(arguments.Number("host", 0, 1), std::nullopt);
  }
}

TEST(PlugArguments, SizesAreTakenUpTo64Bits) {
  PlugArguments arguments({"size=18446744073709551615", "a=18446744073709551616", "b=-1", "c="});
  EXPECT_EQ(arguments.Size("size"), 18446744073709551615U);
  EXPECT_EQ(arguments.Size("d"), std::nullopt);
  for (const char* key : {"a", "b", "c"}) {
    EXPECT_THROW(static_cast<void>(arguments.Size(key)), CommandError) << key;
  }
}

TEST(PlugArguments, AKeyWithASlashIsAPropertyOfARole) {
  const PlugArguments arguments(
      {"volume/a=int:1", "label=x/y", "volume/a=unset", "/b=bool:true", "storage/c/d=string:e=f"});
  const auto& overrides = arguments.Overrides();
  ASSERT_EQ(overrides.size(), 4U) << "each stands for itself, in their order";
  EXPECT_EQ(overrides[0].first, "volume");
  EXPECT_EQ(overrides[0].second.first, "a");
  EXPECT_EQ(overrides[0].second.second, hal::PropertyValue(1));
  EXPECT_EQ(overrides[1].second.second, std::nullopt);
  EXPECT_EQ(overrides[2].first, "");
  EXPECT_EQ(overrides[2].second.second, hal::PropertyValue(true));
  EXPECT_EQ(overrides[3].second.first, "c/d");
  EXPECT_EQ(overrides[3].second.second, hal::PropertyValue(std::string("e=f")));
}

TEST(ParseEdit, ReadsKeyTypeAndValueOrTakesAway) {
  EXPECT_EQ(ParseEdit("a.b=string:unset").second, hal::PropertyValue(std::string("unset")));
  EXPECT_EQ(ParseEdit("a.b=unset"), (hal::PropertyEdits::value_type{"a.b", std::nullopt}));
  const struct {
    const char* word;
    const char* error;
  } kTable[] = {
      {"", R"("" is not KEY=TYPE:VALUE)"},
      {"a", R"("a" is not KEY=TYPE:VALUE)"},
      {"=int:1", R"("=int:1" is not KEY=TYPE:VALUE)"},
      {"a=", R"("" is not TYPE:VALUE)"},
      {"a=1", R"("1" is not TYPE:VALUE)"},
      {"a=Unset", R"("Unset" is not TYPE:VALUE)"},
      {"a=float:1", R"(unknown type "float")"},
      {"a=int:x", R"("x" is not of type int)"},
      {"a=bool:maybe", R"("maybe" is not a bool)"},
  };
  for (const auto& [word, error] : kTable) {
    EXPECT_EQ(ErrorOf([text = word] { ParseEdit(text); }), error);
  }
}

}  // namespace
