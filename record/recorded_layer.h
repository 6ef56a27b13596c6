// A layer of the real library, with every call written down.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "record/log_lines.h"
#include "record/real_library.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace vek_record {

// Hands each call on, with the very objects that it was given, and returns or throws what comes of it. Where recording
// has stopped, that is all.
class RecordedLayer final : public zeb::PuxDnnCustomLayer {
 public:
  // Takes over a layer of the real library. Null where memory does not suffice; the layer is then the caller's still.
  static RecordedLayer* Make(const RealLibrary& real, zeb::PuxDnnCustomLayer* layer, const std::string& type);
  // The object where `layer` is one of these, null for any other.
  static RecordedLayer* Find(zeb::PuxDnnCustomLayer* layer);

  RecordedLayer(const RecordedLayer&) = delete;
  RecordedLayer& operator=(const RecordedLayer&) = delete;
  ~RecordedLayer() override;

  bool Configure(const AttrMap& attrs, const BufAttrsList& inputs, const BufAttrsList& outputs) override;
  bool Execute(void** in_buffers, void** out_buffers) override;

 private:
  // What came of a call.
  struct Outcome {
    std::string log;
    bool is_log_whole = true;
    bool result = false;
    std::string threw;  // an exception's type, as the compiler spells it
    std::uint64_t nanoseconds = 0;
    std::int32_t threshold = 0;  // of the log, before the call
  };

  // A call of Execute while it is recorded. What was written of it goes again unless it is kept: there is never half a
  // call, but where the process died in it.
  struct Execution {
    Execution() = default;
    Execution(const Execution&) = delete;
    Execution& operator=(const Execution&) = delete;
    ~Execution();

    std::string stem;                // of its files' paths
    std::string head;                // its JSON as far as it is known before the call
    std::vector<std::string> files;  // the JSON first
    std::uint64_t taken_bytes = 0;   // of the limit
    bool is_kept = false;
  };

  RecordedLayer(const RealLibrary& real, zeb::PuxDnnCustomLayer* layer);
  // Makes `call`, then runs `after(outcome)`, whatever came of it; returns or throws the same.
  template <typename Call, typename After>
  bool Run(const Call& call, const After& after);
  void WriteLayer() const;
  void Begin(void** in_buffers, Execution& execution) const;
  void Finish(void** out_buffers, const Outcome& outcome, Execution& execution);
  std::string Buffers(const char* kind, void** buffers, const std::vector<std::uint32_t>& sizes,
                      Execution& execution) const;

  const RealLibrary& real_;
  zeb::PuxDnnCustomLayer* layer_;
  std::string head_;                        // of layer.json
  std::string folder_;                      // empty where none could be made
  std::vector<std::string> configures_;     // each as JSON
  std::vector<std::uint32_t> input_bytes_;  // of the last accepted Configure
  std::vector<std::uint32_t> output_bytes_;
  std::uint64_t executed_ = 0;
  std::uint64_t recorded_ = 0;

  // The recorded layers of the process, so that one can be told from another without looking into it.
  RecordedLayer* next_ = nullptr;
  RecordedLayer* previous_ = nullptr;
};

}  // namespace vek_record
