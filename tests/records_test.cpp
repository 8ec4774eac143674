#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/support/environment.hpp"
#include "tests/support/scripted.hpp"
#include "vision/records/action_result.hpp"
#include "vision/records/coercion.hpp"
#include "vision/records/errors.hpp"
#include "vision/settings/settings.hpp"

namespace vision {
namespace {

using boost::json::value;
using limits = std::numeric_limits<std::int64_t>;
const value list = boost::json::array{1}, map = boost::json::object{{"a", 1}}, not_a_number = std::nan("");

TEST(Settings, TimeoutFromTheEnvironment) {
  const std::pair<const char*, double> rows[] = {{nullptr, 20}, {"abc", 20}, {"0", 20},  {"-5", 20},
                                                 {"nan", 20},   {"inf", 20}, {"45", 45}, {" 7.5 ", 7.5}};
  for (const auto& [text, seconds] : rows)
    EXPECT_EQ(detail::timeout_from_text(text), seconds) << (text ? text : "unset");
}

TEST(Settings, TierSwitchIsReadAtEveryCall) {
  const std::pair<const char*, const char*> rows[] = {{"", "off"},        {" Shadow ", "shadow"}, {"ACT", "tier2"},
                                                      {"TIER3", "tier3"}, {"\ttier2\n", "tier2"}, {"tier1", "off"},
                                                      {"on", "off"},      {"true", "off"}};
  for (const auto& [text, mode] : rows) {
    const test::ScopedEnv env("KX_VISION_TIER", text);
    EXPECT_EQ(is_vision_enabled(), mode) << text;
  }
  const test::ScopedEnv env("KX_VISION_TIER", std::nullopt);
  EXPECT_EQ(is_vision_enabled(), "off");
}

TEST(Settings, RegistryIsCopiedOnceAndFixed) {
  EXPECT_THROW(set_model_registry(nullptr), std::invalid_argument);
  test::TestRegistry::instance();
  EXPECT_EQ(MODEL_SONNET() + " " + MODEL_OPUS(), "light-model heavy-model");
  EXPECT_THROW(set_model_registry(std::make_shared<StaticModelRegistry>("a", "b")), std::logic_error);
  EXPECT_EQ(detail::make_price_map("same", 3.0, "same", 5.0), (detail::PriceMap{{"same", 5.0}}));
}

TEST(Coercion, NormRatio) {
  const std::tuple<value, std::optional<std::int64_t>, std::optional<double>> rows[] = {
      {1238, 1280, 0.9671875},  {2000, 1280, 1.0},  {1.5, 1280, 1.0},         {1.6, 1280, 0.00125},
      {900, std::nullopt, 1.0}, {900, 0, 1.0},      {900, -1, 1.0},           {-0.2, 1280, 0.0},
      {"0.25", 1280, 0.25},     {"640", 1280, 0.5}, {true, 1280, 1.0},        {list, 1280, {}},
      {"x", 1280, {}},          {"inf", 1280, {}},  {not_a_number, 1280, {}}, {18446744073709551615u, 1280, 1.0},
  };
  for (const auto& [v, dim, expected] : rows) EXPECT_EQ(_norm_ratio(&v, dim), expected) << v;
  EXPECT_EQ(_norm_ratio(nullptr, 1280), std::nullopt);
}

TEST(Coercion, IntegersAndTexts) {
  const std::tuple<value, std::optional<std::int64_t>, std::optional<std::string>> rows[] = {
      {1500, 1500, "1500"},
      {-2.9, -2, "-2.9"},
      {true, 1, "True"},
      {" 250 ", 250, " 250 "},
      {"2.5", {}, "2.5"},
      {"1e3", {}, "1e3"},
      {"", {}, {}},
      {list, {}, "[1]"},
      {map, {}, "{\"a\": 1}"},
      {nullptr, {}, {}},
      {not_a_number, {}, "nan"},
      {1e20, limits::max(), "1e+20"},
      {-1e300, limits::min(), "-1e+300"},
      {18446744073709551615u, limits::max(), "18446744073709551615"},
  };
  for (const auto& [v, integer, text] : rows) {
    EXPECT_EQ(_opt_int(&v), integer) << v;
    EXPECT_EQ(_opt_str(&v), text) << v;
  }
  const value infinite = INFINITY;
  EXPECT_THROW(_opt_int(&infinite), ConversionError);
}

TEST(Records, Base64) {
  const std::pair<std::string, std::string> rows[] = {{"", ""},        {"f", "Zg=="},          {"fo", "Zm8="},
                                                      {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {"\xfb\xff", "+/8="}};
  for (const auto& [data, text] : rows) EXPECT_EQ(_b64(data), text);
}

}  // namespace
}  // namespace vision
