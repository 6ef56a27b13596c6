// What a recording says, as JSON.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "zeb/pux_dnn_custom_layer.h"

namespace vek_record {

// A text as JSON. Texts are bytes here: each above 127 stands as the character of the same number, so that none is lost.
std::string Quoted(std::string_view text);
// The lines of a text as a JSON list.
std::string QuotedLines(std::string_view text);
// "0x" and as many hexadecimal digits as given.
std::string Hexadecimal(std::uint64_t number, int digits);
// "[a, b]", over lines of their own where `indent` is not empty: that of the list itself.
std::string List(const std::vector<std::string>& items, const std::string& indent = {});

// What a host says at Configure: attributes, and every buffer. It calls what a description answers, and nothing that
// changes it; the answers are those of the moment.
struct Description {
  Description(const zeb::PuxDnnCustomLayer::AttrMap& attrs,
              const zeb::PuxDnnCustomLayer::BufAttrsList& inputs,
              const zeb::PuxDnnCustomLayer::BufAttrsList& outputs);

  std::string members;                     // "attributes", "inputs" and "outputs" of an object, by lines
  std::vector<std::uint32_t> input_bytes;  // what GetSize said of each
  std::vector<std::uint32_t> output_bytes;
};

// The members of layer.json ahead of "configures": this process, now.
std::string LayerHead(std::string_view type, const char* library, std::uint64_t library_bytes,
                      std::uint64_t library_hash);
// layer.json, each of `configures` an object at an indent of four.
std::string LayerText(const std::string& head, const std::vector<std::string>& configures);
// The members of call-NNNN.json ahead of "inputs".
std::string CallHead(std::uint64_t call, std::uint64_t configures);
// What is said of a call when it is over, by lines. `log` is null where it could not be heard.
std::string OutcomeMembers(const std::string& what, std::uint64_t nanoseconds, std::int32_t threshold,
                           const std::string* log, const std::string& indent);
// A tensor of a call; `file` is a name, or empty.
std::string TensorItem(std::uint64_t address, std::uint64_t size, std::uint64_t bytes, std::uint64_t hash,
                       const std::string& file);

}  // namespace vek_record
