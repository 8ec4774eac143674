#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <vector>

#include "tools/report/statistics.hpp"

/// What is kept of many values in little memory. None depends on the order of the
/// values but Sample, which is meant to.
namespace report {

/// Quantiles of non-negative values, each within 0.25 % of a value of that rank.
/// Takes memory with the logarithm of the largest value.
class Quantiles {
 public:
  void add(double value);
  std::int64_t count() const { return count_; }
  /// `rank` from 0 to 1: 0.5 is the median. Absent without values.
  std::optional<double> at(double rank) const;

 private:
  std::map<int, std::int64_t> buckets_;  // of values whose logarithms lie close together
  std::int64_t count_ = 0;
};

/// Shares over time, in at most 48 equal stretches of a power of two of seconds.
class Trend {
 public:
  void add(std::int64_t unix_seconds, bool hit);

  struct Stretch {
    std::int64_t begin;  ///< Unix seconds
    Share share;
  };
  /// In order of time; stretches without events are left out.
  std::vector<Stretch> stretches() const;

 private:
  std::map<std::int64_t, Share> shares_;  // by the stretch's number
  int exponent_ = 0;                      // a stretch takes 2^exponent_ seconds
};

/// The `size` greatest of many values, by operator<.
template <class T>
class Greatest {
 public:
  explicit Greatest(std::size_t size) : size_(size) {}
  void add(T value) {
    if (size_ == 0 || (heap_.size() == size_ && !(heap_.front() < value))) return;
    if (heap_.size() == size_) {
      std::pop_heap(heap_.begin(), heap_.end(), later);
      heap_.pop_back();
    }
    heap_.push_back(std::move(value));
    std::push_heap(heap_.begin(), heap_.end(), later);
  }
  /// The greatest first.
  std::vector<T> sorted() const {
    std::vector<T> out = heap_;
    std::sort_heap(out.begin(), out.end(), later);
    return out;
  }

 private:
  static bool later(const T& a, const T& b) { return b < a; }

  std::size_t size_;
  std::vector<T> heap_;  // its least value in front
};

/// `size` values drawn from many with the same chance for each (algorithm R). The
/// same values in the same order make the same sample.
template <class T>
class Sample {
 public:
  explicit Sample(std::size_t size) : size_(size) {}
  void add(T value) {
    seen_ += 1;
    if (kept_.size() < size_) {
      kept_.push_back(std::move(value));
    } else if (const auto at = std::uniform_int_distribution<std::size_t>(0, seen_ - 1)(random_); at < size_) {
      kept_[at] = std::move(value);
    }
  }
  const std::vector<T>& kept() const { return kept_; }

 private:
  std::size_t size_, seen_ = 0;
  std::vector<T> kept_;
  std::minstd_rand random_{1};
};

/// How far the model's confidence can be believed.
class Calibration {
 public:
  static constexpr std::size_t bins = 10;
  static constexpr std::array<double, 3> thresholds = {0.6, 0.7, 0.8};
  static constexpr std::int64_t enough = 30;

  /// An event whose proposal would act, or not, if its confidence were enough.
  void add(double confidence, bool acts, bool right);

  struct Bin {
    Share right;
    double confidence_sum = 0;
  };
  /// Of confidences from i/10 to (i+1)/10, 1 included in the last. Beyond 0 and 1
  /// they count at the ends.
  const std::array<Bin, bins>& curve() const { return curve_; }
  std::int64_t events() const { return events_; }
  /// Of the events: those with a confidence of thresholds[i] or more that would act.
  Share acting(std::size_t i) const { return {acting_[i].trials, events_}; }
  /// Of those: the wrong ones.
  Share wrong(std::size_t i) const { return acting_[i]; }

 private:
  std::array<Bin, bins> curve_{};
  std::array<Share, thresholds.size()> acting_{};  // hits are the wrong ones
  std::int64_t events_ = 0;
};

}  // namespace report
