/// \file
/// A recording as docs/recording.md defines it: the calls of one layer, read from its folder.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/buf_attrs.h"
#include "host/reserved_slots.h"
#include "mapped_file.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace vekrun {

/// Answers what a host answered when a layer was configured, whether it makes sense or not.
class RecordedAttrs final : public vek_host::ReservedSlots {
 public:
  struct Answers {
    std::vector<unsigned int> dims;
    unsigned int num_dims = 0;
    std::uint32_t size = 0;  ///< bytes
    zeb::PuxDnnBufAttrsMemFormat format;
    unsigned int batch = 0, channels = 0, height = 0, width = 0;
    unsigned int line_stride = 0, plane_stride = 0;  ///< bytes
    std::vector<unsigned int> strides;               ///< bytes
    bool is_strided = false, is_interleaved = false;
  };

  explicit RecordedAttrs(Answers answers) : answers_(std::move(answers)) {}
  explicit RecordedAttrs(const zeb::PuxDnnBufAttrs& attrs);

  const Answers& All() const { return answers_; }

  std::unique_ptr<PuxDnnBufAttrs> Clone() const override { return std::make_unique<RecordedAttrs>(*this); }
  std::uint32_t GetSize() const override { return answers_.size; }
  std::vector<unsigned int> GetDims() const override { return answers_.dims; }
  unsigned int GetNumDims() const override { return answers_.num_dims; }
  std::vector<unsigned int> GetStrides() const override { return answers_.strides; }
  const zeb::PuxDnnBufAttrsMemFormat& GetMemFormat() const override { return answers_.format; }
  unsigned int GetBatch() const override { return answers_.batch; }
  unsigned int GetChannels() const override { return answers_.channels; }
  unsigned int GetHeight() const override { return answers_.height; }
  unsigned int GetWidth() const override { return answers_.width; }
  unsigned int GetLineStride() const override { return answers_.line_stride; }
  unsigned int GetPlaneStride() const override { return answers_.plane_stride; }
  bool IsStrided() const override { return answers_.is_strided; }
  bool IsInterleaved() const override { return answers_.is_interleaved; }
  // What a layer sets on its clone.
  void SetPlanePack(std::int32_t channels) override;
  void SetLineStride(unsigned int bytes) override;
  void SetPlaneStride(unsigned int bytes) override;

 private:
  void FollowLayout();

  Answers answers_;
};

/// \return the layout of the elements that such a description tells of, to read them by; nothing where its answers
/// contradict each other.
std::optional<vek_host::BufAttrs> LayoutOf(const RecordedAttrs& attrs);

/// What came of a call.
struct RecordedOutcome {
  std::optional<std::string>
      what;  ///< "accepted", "refused", "done", "failed", "threw TYPE"; none where it is not known
  std::uint64_t nanoseconds = 0;
  std::optional<std::int32_t> threshold;        ///< of the log, before the call
  std::optional<std::vector<std::string>> log;  ///< its lines, where they could be heard
};

/// A call of `Configure`. A null pointer is a host's.
struct RecordedConfigure {
  std::vector<std::pair<std::string, std::string>> attributes;  ///< in the order of the host's map
  std::vector<std::shared_ptr<const RecordedAttrs>> inputs;
  std::vector<std::shared_ptr<const RecordedAttrs>> outputs;
  RecordedOutcome outcome;
};

/// A buffer of a call of `Execute`.
struct RecordedTensor {
  std::uint64_t address = 0;      ///< equal ones are one buffer; 0 is a null pointer
  std::uint64_t size = 0;         ///< bytes, as described
  std::uint64_t bytes = 0;        ///< how many of them there were
  std::uint64_t hash = 0;         ///< XXH64 of these
  std::string file;               ///< their path; empty where there is none
  std::optional<FileBytes> held;  ///< the bytes themselves, where they come from no file
};

/// \return the tensor's bytes, or nothing where only their hash is known. Throws `UsageError`.
std::optional<FileBytes> BytesOf(const RecordedTensor& tensor);
std::uint64_t HashOf(const void* data, std::size_t bytes);

/// A call of `Execute`. No list: the array was a null pointer, or for the outputs, the call did not return.
struct RecordedExecute {
  std::uint64_t number = 1;    ///< which one of the layer
  std::size_t configures = 0;  ///< calls of `Configure` before it
  std::optional<std::vector<RecordedTensor>> inputs;
  std::optional<std::vector<RecordedTensor>> outputs;
  RecordedOutcome outcome;
};

struct RecordedLayer {
  std::string folder;  ///< its path
  std::string name;    ///< the last part of it
  std::string type;
  std::string machine;  ///< "aarch64" or "x86_64"
  std::vector<RecordedConfigure> configures;
  std::vector<RecordedExecute> executes;

  /// \return the last accepted `Configure` before that call, or null.
  const RecordedConfigure* ConfigureOf(const RecordedExecute& execute) const;
};

/// \return the layers in a folder of a recording, by name; or the one layer whose own folder it is.
/// Throws `UsageError` where it holds none, or where a file is not as docs/recording.md says.
std::vector<RecordedLayer> ReadRecording(const std::string& folder);

}  // namespace vekrun
