#include "bench/paired.h"

#include <algorithm>
#include <chrono>

namespace zq::bench {

Side batchOf(int batch, std::function<void()> operation) {
  return [batch, operation = std::move(operation)] {
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    for (int i = 0; i < batch; ++i) operation();
    const std::chrono::duration<double, std::micro> taken = Clock::now() - begin;
    return taken.count() / batch;
  };
}

Rounds::Rounds(int count, const std::vector<Side>& sides) {
  for (const Side& side : sides) side();
  for (int round = 0; round < count; ++round) {
    std::vector<double> figures(sides.size());
    for (std::size_t i = 0; i < sides.size(); ++i) {
      const std::size_t turn = round % 2 == 0 ? i : sides.size() - 1 - i;
      figures[turn] = sides[turn]();
    }
    rounds_.push_back(std::move(figures));
  }
}

double Rounds::median(std::size_t side) const {
  return median([side](const std::vector<double>& round) { return round[side]; });
}

double Rounds::median(const std::function<double(const std::vector<double>&)>& value) const {
  std::vector<double> values;
  for (const auto& round : rounds_) values.push_back(value(round));
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double Rounds::ratio(std::size_t side, std::size_t reference) const {
  return median([=](const std::vector<double>& round) { return round[side] / round[reference]; });
}

}  // namespace zq::bench
