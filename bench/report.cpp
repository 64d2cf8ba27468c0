#include "bench/report.h"

namespace zq::bench {
namespace {

std::string verdict(const Row& row) {
  if (!row.bar) return "";
  const bool atMost = row.bar->kind == Bar::Kind::AtMost;
  const bool held = atMost ? row.ratio <= row.bar->ratio : row.ratio >= row.bar->ratio;
  char text[32];
  std::snprintf(text, sizeof text, "%s %.2f %s", atMost ? "<=" : ">=", row.bar->ratio,
                held ? "held" : "MISSED");
  return text;
}

}  // namespace

void printHead(std::FILE* out) {
  std::fprintf(out, "%-7s %-46s %10s   %-46s %10s %7s   %s\n", "placed", "what", "us", "beside",
               "us", "ratio", "bar");
}

void Report::add(const Row& row) {
  std::fprintf(out_, "%-7s %-46s %10.2f   %-46s %10.2f %7.2f   %s\n",
               placement_ == Placement::Pinned ? "pinned" : "free", row.what.c_str(), row.measured,
               row.beside.c_str(), row.reference, row.ratio, verdict(row).c_str());
  std::fflush(out_);
}

}  // namespace zq::bench
