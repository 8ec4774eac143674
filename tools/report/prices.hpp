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

/// What a million tokens cost, by model. The file is a JSON object: as_of (a date),
/// models (an object with input and output in US dollars by the model's name).
class Prices {
 public:
  /// The table that the program was built with.
  static Prices built_in();
  /// Throws InputError for a file that is not such a table.
  static Prices load(const std::string& path);

  /// US dollars; absent for a model without a price. A name with a date behind it,
  /// "-20251001", has the price of the name without.
  std::optional<double> cost(std::string_view model, const Spend& spend) const;

  const std::string& as_of() const { return as_of_; }
  const std::string& source() const { return source_; }  ///< the file, or "built in"

 private:
  static Prices parse(std::string_view text, const std::string& source);

  struct Price {
    double input, output;
  };
  std::map<std::string, Price, std::less<>> models_;
  std::string as_of_, source_;
};

}  // namespace report
