#include <gtest/gtest.h>

#include <boost/json/object.hpp>
#include <boost/system/system_error.hpp>
#include <boost/throw_exception.hpp>
#include <cmath>
#include <limits>

#include "vision/text/errors.hpp"
#include "vision/text/json_text.hpp"
#include "vision/text/numbers.hpp"
#include "vision/text/utf8.hpp"

namespace vision::text {
namespace {

TEST(Numbers, Forms) {
  const std::pair<double, const char*> rows[] = {
      {0.0, "0.0"},        {-0.0, "-0.0"},
      {0.85, "0.85"},      {1e-4, "0.0001"},
      {1e-5, "1e-05"},     {1e15, "1000000000000000.0"},
      {1e16, "1e+16"},     {123456789012345680.0, "1.2345678901234568e+17"},
      {5e-324, "5e-324"},  {INFINITY, "inf"},
      {-INFINITY, "-inf"}, {std::nan(""), "nan"},
  };
  for (const auto& [value, expected] : rows) EXPECT_EQ(shortest(value), expected);
  EXPECT_EQ(fixed(1.25, 1), "1.2") << "the exact value, ties to even";
  EXPECT_EQ(fixed(0.456, 2), "0.46");
  EXPECT_EQ(fixed(1e300, 0).size(), 301u);
}

TEST(Numbers, Read) {
  const std::pair<const char*, double> reals[] = {
      {"0.25", 0.25}, {" 7.5\n", 7.5},     {"+.5", 0.5},          {"5.", 5},         {"-2E-1", -0.2},
      {"1e-999", 0},  {"1e999", INFINITY}, {"-1e999", -INFINITY}, {"INF", INFINITY}, {"-Infinity", -INFINITY},
  };
  for (const auto& [text, value] : reals) EXPECT_EQ(parse_real(text), value) << text;
  EXPECT_TRUE(std::isnan(*parse_real("NaN")));
  for (const char* bad : {"", " ", "abc", "0x10", "1,5", "1e", "1 2", "--1", "+-1", "nan(1)", "1_000", "1f"}) {
    EXPECT_FALSE(parse_real(bad)) << bad;
  }
  using limits = std::numeric_limits<std::int64_t>;
  EXPECT_EQ(parse_integer(" -007 "), -7);
  EXPECT_EQ(parse_integer("99999999999999999999"), limits::max());
  EXPECT_EQ(parse_integer("-99999999999999999999"), limits::min());
  for (const char* bad : {"", "2.5", "1e3", "two", "0x1", "- 1", "1 2"}) EXPECT_FALSE(parse_integer(bad)) << bad;
  EXPECT_EQ(truncate(-2.9), -2);
  EXPECT_EQ(truncate(1e20), limits::max());
  EXPECT_EQ(truncate(-INFINITY), limits::min());
}

TEST(Utf8, CutsAtCodePointsAndSurvivesAnyBytes) {
  EXPECT_EQ(first_code_points("añ—😀x", 4), "añ—😀");
  EXPECT_EQ(first_code_points("añ", 9), "añ");
  const std::string broken = "a\xC3(\xF0\x9F\x98z\xED\xA0\x80\xFF";  // cut, cut, surrogate, never valid
  EXPECT_EQ(first_code_points(broken, 4), "a\xC3(\xF0\x9F\x98");
  EXPECT_EQ(one_line(broken), "a\uFFFD(\uFFFDz\uFFFD\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(one_line("a\nb\r\t\x1b[0m\x7f\u0085\u2028ü"), "a\\nb\\r\\t\\u001b[0m\\u007f\\u0085\\u2028ü");
}

TEST(Json, ExactText) {
  boost::json::object value;
  value["z"] = {1, -2, 3u, 2.0, 1e-5, true, nullptr};
  value["a"] = "q\"\\\n\t\b\f\x01\x7f é — 😀";
  value["n"] = {std::nan(""), INFINITY};
  value["e"] = boost::json::object{};
  EXPECT_EQ(to_json(value),
            R"({"z": [1, -2, 3, 2.0, 1e-05, true, null], )"
            R"("a": "q\"\\\n\t\b\f\u0001\u007f \u00e9 \u2014 \ud83d\ude00", "n": [null, null], "e": {}})");
  EXPECT_EQ(to_json(boost::json::value("a\xFFz")), "\"a\\ufffdz\"");
  const std::pair<boost::json::value, const char*> plain[] = {
      {nullptr, "None"}, {true, "True"}, {2.0, "2.0"}, {"as it\nis", "as it\nis"}, {{1, "ü"}, "[1, \"\\u00fc\"]"},
  };
  for (const auto& [plain_value, text] : plain) EXPECT_EQ(plain_text(plain_value), text);
}

template <class T>
struct Wrapped : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct NoMessage : std::exception {
  const char* what() const noexcept override { return nullptr; }
};

TEST(Errors, KindAndMessage) {
  const auto text_of = [](auto thrown) { return exception_text(std::make_exception_ptr(thrown)); };
  EXPECT_EQ(text_of(std::out_of_range("no")), "out_of_range: no");
  EXPECT_EQ(text_of(Wrapped<std::string>("x")), "Wrapped: x");
  EXPECT_EQ(text_of(std::string("bare text")), "string: bare text");
  EXPECT_EQ(text_of(42), "int: ");
  EXPECT_EQ(text_of(NoMessage()), "NoMessage: ");
  EXPECT_EQ(text_of(std::runtime_error(std::string(300, 'x'))), "runtime_error: " + std::string(200, 'x'));
  EXPECT_EQ(unqualified_type_name("std::_Nested_exception<my::Error<int> >"), "Error");
  try {
    boost::throw_exception(boost::system::system_error(boost::system::error_code(), "w"));
  } catch (...) {
    EXPECT_EQ(describe(std::current_exception()).kind, "system_error");
  }
}

}  // namespace
}  // namespace vision::text
