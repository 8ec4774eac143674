#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace report {

/// Calls and the tokens that they took.
struct Spend {
  std::int64_t calls = 0, input_tokens = 0, output_tokens = 0;

  void add(std::int64_t input, std::int64_t output) {
    calls += 1;
    input_tokens += input;
    output_tokens += output;
  }
};

/// How large a picture a model sees; the service shrinks a larger one to both limits.
struct PictureLimits {
  std::int64_t longest_edge = 1568;  ///< pixels
  std::int64_t tokens = 1568;
};

/// What a million tokens cost, by model, and how large a picture each sees. The file is
/// a JSON object: as_of (a date), models (an object with input and output in US dollars,
/// and optionally longest_edge and picture_tokens, by the model's name).
class Prices {
 public:
  /// The table that the program was built with.
  static Prices built_in();
  /// Throws InputError for a file that is not such a table.
  static Prices load(const std::string& path);

  /// US dollars; absent for a model without a price. A name with a date behind it,
  /// "-20251001", has the price of the name without.
  std::optional<double> cost(std::string_view model, const Spend& spend) const;

  /// Absent for a model that the table does not have.
  std::optional<PictureLimits> picture_limits(std::string_view model) const;

  const std::string& as_of() const { return as_of_; }
  const std::string& source() const { return source_; }  ///< the file, or "built in"

 private:
  static Prices parse(std::string_view text, const std::string& source);

  struct Model {
    double input, output;
    PictureLimits picture;
  };
  const Model* find(std::string_view model) const;

  std::map<std::string, Model, std::less<>> models_;
  std::string as_of_, source_;
};

}  // namespace report
