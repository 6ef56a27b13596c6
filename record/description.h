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

}  // namespace vek_record
