#include <gtest/gtest.h>

#include "tests/support/environment.hpp"
#include "tests/support/scripted.hpp"
#include "vision/records/errors.hpp"
#include "vision/records/internal/coercion.hpp"
#include "vision/settings/internal/defaults.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/numbers.hpp"

namespace vision {
namespace {

using namespace text;
using boost::json::value;
using limits = std::numeric_limits<std::int64_t>;

TEST(Numbers, Forms) {
  const std::pair<double, const char*> rows[] = {
      {0.0, "0.0"},        {-0.0, "-0.0"},
      {0.85, "0.85"},      {1e-4, "0.0001"},
      {1e-5, "1e-05"},     {1e15, "1000000000000000.0"},
      {1e16, "1e+16"},     {123456789012345680.0, "1.2345678901234568e+17"},
      {5e-324, "5e-324"},  {INFINITY, "inf"},
      {-INFINITY, "-inf"}, {std::nan(""), "nan"},
  };
  for (const auto& [number, expected] : rows) EXPECT_EQ(shortest(number), expected);
  EXPECT_EQ(fixed(1.25, 1), "1.2") << "the exact value, ties to even";
  EXPECT_EQ(fixed(1e300, 0).size(), 301u);
}

TEST(Numbers, Read) {
  const std::pair<const char*, double> reals[] = {{" 7.5\n", 7.5}, {"+.5", 0.5},          {"5.", 5},
                                                  {"-2E-1", -0.2}, {"-1e999", -INFINITY}, {"INF", INFINITY}};
  for (const auto& [text, number] : reals) EXPECT_EQ(parse_real(text), number) << text;
  EXPECT_TRUE(std::isnan(*parse_real("NaN")));
  for (const char* bad : {"", " ", "abc", "0x10", "1,5", "1e", "1 2", "--1", "+-1", "nan(1)", "1_000", "1f"})
    EXPECT_FALSE(parse_real(bad)) << bad;
  EXPECT_EQ(parse_integer(" -007 "), -7);
  for (const char* bad : {"", "2.5", "1e3", "two", "0x1", "- 1", "1 2"}) EXPECT_FALSE(parse_integer(bad)) << bad;
}

TEST(Json, ExactText) {
  boost::json::object members;
  members["z"] = {1, -2, 3u, 2.0, 1e-5, true, nullptr};
  members["a"] = "q\"\\\n\t\b\f\x01\x7f é — 😀 \xFF";
  members["n"] = {std::nan(""), INFINITY};
  members["e"] = boost::json::object{};
  EXPECT_EQ(to_json(members), R"({"z": [1, -2, 3, 2.0, 1e-05, true, null], )"
                              R"("a": "q\"\\\n\t\b\f\u0001)"
                              "\x7f"
                              R"( \u00e9 \u2014 \ud83d\ude00 \ufffd", "n": [null, null], "e": {}})");
}

struct NoMessage : std::exception {
  const char* what() const noexcept override { return nullptr; }
};

TEST(Errors, KindAndMessage) {
  const auto text_of = [](auto thrown) { return exception_text(std::make_exception_ptr(thrown)); };
  EXPECT_EQ(text_of(std::string("bare text")), "string: bare text");
  EXPECT_EQ(text_of(42), "int: ");
  EXPECT_EQ(text_of(NoMessage()), "NoMessage: ");
  EXPECT_EQ(text_of(std::runtime_error(std::string(300, 'x'))), "runtime_error: " + std::string(200, 'x'));
  EXPECT_EQ(unqualified_type_name("boost::wrapexcept<my::Error<int> >"), "Error");
}

TEST(Settings, TimeoutFromTheEnvironment) {
  for (const char* text : {"abc", "0", "-5", "nan", "inf"}) EXPECT_EQ(detail::timeout_from_text(text), 20) << text;
  EXPECT_EQ(detail::timeout_from_text(nullptr), 20);
  EXPECT_EQ(detail::timeout_from_text(" 7.5 "), 7.5);
}

TEST(Settings, TierSwitchIsReadAtEveryCall) {
  const std::pair<std::optional<std::string>, const char*> rows[] = {
      {std::nullopt, "off"},  {"", "off"},      {" Shadow ", "shadow"}, {"ACT", "tier2"}, {"TIER3", "tier3"},
      {"\ttier2\n", "tier2"}, {"tier1", "off"}, {"true", "off"}};
  for (const auto& [text, mode] : rows) {
    const test::ScopedEnv env("KX_VISION_TIER", text);
    EXPECT_EQ(is_vision_enabled(), mode) << text.value_or("unset");
  }
}

TEST(Settings, RegistryIsCopiedOnceAndFixed) {
  EXPECT_THROW(set_model_registry(nullptr), std::invalid_argument);
  test::TestRegistry::instance();
  EXPECT_EQ(MODEL_SONNET(), "light-model");
  EXPECT_EQ(MODEL_OPUS(), "heavy-model");
  EXPECT_THROW(set_model_registry(std::make_shared<StaticModelRegistry>("a", "b")), std::logic_error);
  EXPECT_EQ(detail::make_price_map("same", 3.0, "same", 5.0), (detail::PriceMap{{"same", 5.0}}));
}

// A process chooses its models once.
TEST(SettingsDeathTest, SaysWhatTheRegistryLacks) {
  const auto use = [](const char* light, const char* heavy) {
    if (light) set_model_registry(std::make_shared<StaticModelRegistry>(light, heavy));
    try {
      MODEL_SONNET();
    } catch (const std::runtime_error& error) {
      std::fputs(error.what(), stderr);
    }
    std::exit(0);
  };
  EXPECT_EXIT(use(nullptr, nullptr), testing::ExitedWithCode(0), "no model registry");
  EXPECT_EXIT(use("", "heavy"), testing::ExitedWithCode(0), "returns an empty VISION_LIGHT_MODEL");
  EXPECT_EXIT(use("light", ""), testing::ExitedWithCode(0), "returns an empty VISION_HEAVY_MODEL");
}

TEST(Coercion, AsRatioIntegerAndText) {
  struct {
    value given;
    std::optional<double> ratio;  // of 1280 pixels
    std::optional<std::int64_t> integer;
    std::optional<std::string> text;
  } const rows[] = {
      {1238, 0.9671875, 1238, "1238"},
      {2000, 1.0, 2000, "2000"},
      {1.5, 1.0, 1, "1.5"},
      {1.6, 0.00125, 1, "1.6"},
      {-2.9, 0.0, -2, "-2.9"},
      {"0.25", 0.25, {}, "0.25"},
      {" 640\n", 0.5, 640, " 640\n"},
      {"inf", {}, {}, "inf"},
      {"", {}, {}, {}},
      {true, 1.0, 1, "True"},
      {nullptr, {}, {}, {}},
      {boost::json::array{1}, {}, {}, "[1]"},
      {std::nan(""), {}, {}, "nan"},
      {1e20, 1.0, limits::max(), "1e+20"},
      {-1e300, 0.0, limits::min(), "-1e+300"},
      {18446744073709551615u, 1.0, limits::max(), "18446744073709551615"},
  };
  for (const auto& [given, ratio, integer, text] : rows) {
    EXPECT_EQ(_norm_ratio(&given, 1280), ratio) << given;
    EXPECT_EQ(_opt_int(&given), integer) << given;
    EXPECT_EQ(_opt_str(&given), text) << given;
  }
  const value pixels = 900, infinite = INFINITY;
  EXPECT_EQ(_norm_ratio(&pixels, std::nullopt), 1.0);
  EXPECT_EQ(_norm_ratio(&pixels, 0), 1.0);
  EXPECT_THROW(_opt_int(&infinite), ConversionError);
}

}  // namespace
}  // namespace vision
