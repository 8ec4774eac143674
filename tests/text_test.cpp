#include <gtest/gtest.h>

#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/system/system_error.hpp>
#include <boost/throw_exception.hpp>
#include <cmath>
#include <ios>
#include <limits>

#include "vision/records/errors.hpp"
#include "vision/text/errors.hpp"
#include "vision/text/json_text.hpp"
#include "vision/text/numbers.hpp"
#include "vision/text/utf8.hpp"

namespace vision::text {
namespace {

TEST(Numbers, ShortestForm) {
  const std::pair<double, const char*> rows[] = {
      {0.0, "0.0"},
      {-0.0, "-0.0"},
      {2.0, "2.0"},
      {0.85, "0.85"},
      {1234.5, "1234.5"},
      {0.1, "0.1"},
      {1e-4, "0.0001"},
      {1e-5, "1e-05"},
      {1.25e-7, "1.25e-07"},
      {1e15, "1000000000000000.0"},
      {1e16, "1e+16"},
      {1.5e16, "1.5e+16"},
      {123456789012345680.0, "1.2345678901234568e+17"},
      {-1e300, "-1e+300"},
      {5e-324, "5e-324"},
      {1.0 / 3, "0.3333333333333333"},
      {100.0, "100.0"},
      {INFINITY, "inf"},
      {-INFINITY, "-inf"},
      {9007199254740993.0, "9007199254740992.0"},
  };
  for (const auto& [value, expected] : rows) EXPECT_EQ(shortest(value), expected);
  EXPECT_EQ(shortest(std::nan("")), "nan");
}

TEST(Numbers, FixedRoundsTheExactValueTiesToEven) {
  EXPECT_EQ(fixed(1.25, 1), "1.2");
  EXPECT_EQ(fixed(2.625, 1), "2.6");
  EXPECT_EQ(fixed(0.456, 2), "0.46");
  EXPECT_EQ(fixed(0.125, 2), "0.12");
  EXPECT_EQ(fixed(1, 1), "1.0");
  EXPECT_EQ(fixed(1e300, 0).size(), 301u);
}

TEST(Numbers, ParseReal) {
  const std::pair<const char*, double> good[] = {
      {"0.25", 0.25},           {" 7.5\n", 7.5},     {"1e3", 1000},         {"+.5", 0.5},  {"5.", 5},
      {"-2E-1", -0.2},          {"1e999", INFINITY}, {"-1e999", -INFINITY}, {"1e-999", 0}, {"INF", INFINITY},
      {"-Infinity", -INFINITY},
  };
  for (const auto& [text, value] : good) EXPECT_EQ(parse_real(text), value) << text;
  EXPECT_TRUE(std::isnan(*parse_real("NaN")));
  for (const char* bad :
       {"", " ", "abc", "0x10", "0x1p3", "1,5", "1e", "1 2", "--1", "+-1", "nan(1)", "1_000", "1f", "\0"}) {
    EXPECT_FALSE(parse_real(bad)) << bad;
  }
}

TEST(Numbers, ParseAndTruncateIntegers) {
  using limits = std::numeric_limits<std::int64_t>;
  EXPECT_EQ(parse_integer(" 250 "), 250);
  EXPECT_EQ(parse_integer("-007"), -7);
  EXPECT_EQ(parse_integer("-9223372036854775808"), limits::min());
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
  EXPECT_EQ(first_code_points("", 3), "");
  const std::string broken = "a\xC3(\xF0\x9F\x98z\xED\xA0\x80\xFF";  // cut, cut, surrogate, never valid
  EXPECT_EQ(first_code_points(broken, 3), "a\xC3(");
  EXPECT_EQ(first_code_points(broken, 4), "a\xC3(\xF0\x9F\x98");
  EXPECT_EQ(one_line(broken), "a\uFFFD(\uFFFDz\uFFFD\uFFFD\uFFFD\uFFFD");
  for (int byte = 0; byte < 256; ++byte) {
    const std::string line = one_line(std::string(3, static_cast<char>(byte)));
    EXPECT_EQ(line.find_first_of("\n\r\x1b\x7f"), std::string::npos) << byte;
  }
  EXPECT_EQ(one_line("a\nb\r\t\x1b[0m\u0085\u2028ü"), "a\\nb\\r\\t\\u001b[0m\\u0085\\u2028ü");
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
  std::string all_bytes;
  for (int byte = 0; byte < 256; ++byte) all_bytes += static_cast<char>(byte);
  EXPECT_NO_THROW(boost::json::parse(to_json(boost::json::value(all_bytes))));
}

TEST(Json, PlainText) {
  EXPECT_EQ(plain_text(nullptr), "None");
  EXPECT_EQ(plain_text(true), "True");
  EXPECT_EQ(plain_text(2.0), "2.0");
  EXPECT_EQ(plain_text("as it\nis"), "as it\nis");
  EXPECT_EQ(plain_text({1, "ü"}), "[1, \"\\u00fc\"]");
}

template <class T>
struct Wrapped : std::runtime_error {
  using std::runtime_error::runtime_error;
};

TEST(Errors, KindAndMessage) {
  const auto text_of = [](auto thrown) { return exception_text(std::make_exception_ptr(thrown)); };
  EXPECT_EQ(text_of(std::out_of_range("no")), "out_of_range: no");
  EXPECT_EQ(text_of(Wrapped<std::string>("x")), "Wrapped: x");
  EXPECT_EQ(text_of(BudgetExceeded(50)), "BudgetExceeded: Vision call budget 50 exceeded — escalate to CUA");
  EXPECT_EQ(text_of(std::string("bare text")), "string: bare text");
  EXPECT_EQ(text_of(42), "int: ");
  EXPECT_EQ(text_of(std::runtime_error(std::string(300, 'x'))), "runtime_error: " + std::string(200, 'x'));
  struct NoMessage : std::exception {
    const char* what() const noexcept override { return nullptr; }
  };
  EXPECT_EQ(text_of(NoMessage()), "NoMessage: ");
  EXPECT_EQ(text_of(std::ios_base::failure("f")), "failure: f: iostream error");
  EXPECT_EQ(unqualified_type_name("std::_Nested_exception<my::Error<int> >"), "Error");
  try {
    boost::throw_exception(boost::system::system_error(boost::system::error_code(), "w"));
  } catch (...) {
    EXPECT_EQ(describe(std::current_exception()).kind, "system_error");
  }
}

}  // namespace
}  // namespace vision::text
