#include "tools/perixctl/diagnosis.h"

#include "tools/perixctl/command_error.h"
#include "tools/perixctl/mailbox.h"

namespace zq::ctl {
namespace {

constexpr uint32_t kFinished = 100;
constexpr std::chrono::seconds kStepTimeout{10};

/// Hears one diagnosis, for as long as it lives.
class ProgressListener : public PerixDiagnoseNotify {
 public:
  explicit ProgressListener(PerixProxy& proxy) : proxy_(proxy) {}
  ~ProgressListener() override { proxy_.StopDiagnoseNotify(this); }
  ProgressListener(const ProgressListener&) = delete;
  ProgressListener& operator=(const ProgressListener&) = delete;

  void OnDiagnoseProgress(const std::string& desktop, uint64_t value, uint32_t progress,
                          const std::string& text) override {
    steps.put({desktop, value, progress, text});
  }

  Mailbox<DiagnosisStep> steps;

 private:
  PerixProxy& proxy_;
};

}  // namespace

std::vector<DiagnosisStep> diagnose(Run& run, const std::string& desktop,
                                    const uint64_t* sourceId) {
  PerixProxy& proxy = run.proxy();
  ProgressListener listener(proxy);
  requireDone(sourceId == nullptr ? proxy.Diagnose(desktop, &listener)
                                  : proxy.DiagnoseDevice(desktop, *sourceId, &listener));
  std::vector<DiagnosisStep> steps;
  while (steps.empty() || steps.back().progress < kFinished) {
    std::optional<DiagnosisStep> step = listener.steps.take(kStepTimeout);
    if (!step) throw CommandError(ExitCode::TimedOut, "the diagnosis did not come to its end");
    run.indicator.progress(step->progress, step->text);
    steps.push_back(std::move(*step));
  }
  return steps;
}

}  // namespace zq::ctl
