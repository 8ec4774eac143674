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
const value list = boost::json::array{1}, map = boost::json::object{{"a", 1}}, not_a_number = std::nan("");

TEST(Settings, TimeoutFromTheEnvironment) {
  const std::pair<const char*, double> rows[] = {{nullptr, 20.0}, {"", 20.0},    {"abc", 20.0},  {"0", 20.0},
                                                 {"-5", 20.0},    {"nan", 20.0}, {"inf", 20.0},  {"1e999", 20.0},
                                                 {" 7.5 ", 7.5},  {"45", 45.0},  {"0x10", 20.0}, {"1e-3", 0.001}};
  for (const auto& [text, seconds] : rows)
    EXPECT_EQ(detail::timeout_from_text(text), seconds) << (text ? text : "unset");
}

TEST(Settings, TierSwitchIsReadAtEveryCall) {
  const std::pair<const char*, const char*> rows[] = {{"", "off"},        {" Shadow ", "shadow"}, {"ACT", "tier2"},
                                                      {"TIER3", "tier3"}, {"\ttier2\n", "tier2"}, {"tier1", "off"},
                                                      {"on", "off"},      {"true", "off"},        {"off", "off"}};
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
  EXPECT_EQ(MODEL_SONNET(), "light-model");
  EXPECT_EQ(MODEL_OPUS(), "heavy-model");
  EXPECT_THROW(set_model_registry(std::make_shared<StaticModelRegistry>("a", "b")), std::logic_error);
  EXPECT_EQ(detail::make_price_map("same", 3.0, "same", 5.0), (detail::PriceMap{{"same", 5.0}}));
}

TEST(Coercion, NormRatio) {
  const std::tuple<value, std::optional<std::int64_t>, std::optional<double>> rows[] = {
      {1238, 1280, 0.9671875},
      {2000, 1280, 1.0},
      {1.2, 1280, 1.0},
      {1.5, 1280, 1.0},
      {1.6, 1280, 0.00125},
      {900, std::nullopt, 1.0},
      {900, 0, 1.0},
      {900, -1, 1.0},
      {-0.2, 1280, 0.0},
      {-500, 1280, 0.0},
      {"0.25", 1280, 0.25},
      {true, 1280, 1.0},
      {0.0, 1280, 0.0},
      {list, 1280, {}},
      {map, 1280, {}},
      {nullptr, 1280, {}},
      {"x", 1280, {}},
      {"inf", 1280, {}},
      {not_a_number, 1280, {}},
      {"640", 1280, 0.5},
      {18446744073709551615u, 1280, 1.0},
  };
  for (const auto& [v, dim, expected] : rows) EXPECT_EQ(_norm_ratio(&v, dim), expected) << v;
  EXPECT_EQ(_norm_ratio(nullptr, 1280), std::nullopt);
}

TEST(Coercion, FloatIntStr) {
  const value one_thousand = "1e3", nan_text = "nan", fraction_text = "2.5", padded = " 250 ", empty = "", blank = " ";
  EXPECT_EQ(_opt_float(&one_thousand), 1000.0);
  EXPECT_TRUE(std::isnan(*_opt_float(&nan_text)));
  EXPECT_EQ(_opt_float(&list), std::nullopt);

  const std::pair<value, std::optional<std::int64_t>> integers[] = {
      {1500, 1500},
      {1500.9, 1500},
      {-2.9, -2},
      {true, 1},
      {padded, 250},
      {fraction_text, {}},
      {one_thousand, {}},
      {empty, {}},
      {list, {}},
      {map, {}},
      {nullptr, {}},
      {not_a_number, {}},
      {1e20, std::numeric_limits<std::int64_t>::max()},
      {-1e300, std::numeric_limits<std::int64_t>::min()},
      {18446744073709551615u, std::numeric_limits<std::int64_t>::max()},
  };
  for (const auto& [v, expected] : integers) EXPECT_EQ(_opt_int(&v), expected) << v;
  const value infinite = INFINITY;
  EXPECT_THROW(_opt_int(&infinite), ConversionError);

  const std::pair<value, std::optional<std::string>> texts[] = {
      {empty, {}}, {blank, " "}, {5, "5"}, {-5, "-5"}, {nullptr, {}}, {"Control+a", "Control+a"}, {true, "True"}};
  for (const auto& [v, expected] : texts) EXPECT_EQ(_opt_str(&v), expected) << v;
}

TEST(Coercion, Base64InOneGoAndInPieces) {
  const std::pair<std::string, std::string> rows[] = {{"", ""},        {"f", "Zg=="},          {"fo", "Zm8="},
                                                      {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {"\xfb\xff", "+/8="}};
  for (const auto& [data, text] : rows) EXPECT_EQ(_b64(data), text);
}

TEST(Records, DefaultsAndEquality) {
  const ActionResult bare("click", "why", 0.7, "then");
  ActionResult same = bare;
  EXPECT_EQ(same, bare);
  EXPECT_FALSE(bare.x_ratio || bare.y_ratio || bare.text || bare.key || bare.scroll_dy_ratio || bare.duration_ms);
  EXPECT_FALSE(bare.low_confidence);
  EXPECT_EQ(bare.model_used + std::to_string(bare.input_tokens + bare.output_tokens), "0");
  same.x_ratio = 0.0;
  EXPECT_NE(same, bare);
}

}  // namespace
}  // namespace vision
