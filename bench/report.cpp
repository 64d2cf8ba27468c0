#include "bench/report.h"

namespace zq::bench {
namespace {

std::string verdict(const Row& row) {
  if (!row.target) return "";
  const bool atMost = row.target->kind == Target::Kind::AtMost;
  const bool met = atMost ? row.ratio <= row.target->ratio : row.ratio >= row.target->ratio;
  char text[32];
  std::snprintf(text, sizeof text, "%s %.2f %s", atMost ? "<=" : ">=", row.target->ratio,
                met ? "met" : "MISSED");
  return text;
}

}  // namespace

void printHead(std::FILE* out) {
  std::fprintf(out, "%-7s %-7s %-42s %9s   %-46s %9s %7s   %s\n", "placed", "way", "what", "us",
               "compared with", "us", "ratio", "target");
}

void Report::add(const Row& row) {
  const char* placed = placement_ == Placement::Pinned ? "pinned" : "free";
  const char* way = way_ == Way::Direct ? "direct" : "broker";
  const std::string met = verdict(row);
  std::fprintf(out_, "%-7s %-7s %-42s %9.2f   %-46s %9.2f %7.2f   %s\n", placed, way,
               row.what.c_str(), row.measured, row.referenceName.c_str(), row.reference, row.ratio,
               met.c_str());
  std::fflush(out_);
  if (copy_ == nullptr) return;
  std::fprintf(copy_, "%s\t%s\t%s\t%.2f\t%s\t%.2f\t%.2f\t%s\n", placed, way, row.what.c_str(),
               row.measured, row.referenceName.c_str(), row.reference, row.ratio, met.c_str());
  std::fflush(copy_);
}

}  // namespace zq::bench
