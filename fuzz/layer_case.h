// One fuzz case of a layer: bytes decoded into attribute texts, descriptions and calls, run through the plug-in's own
// door beside the model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vek_fuzz {

// The sixteen layer types.
extern const char* const kLayerTypes[16];

// Runs the case; prints what differs and aborts when the layer and its model do not agree.
void RunLayerCase(const std::string& type, const std::uint8_t* data, std::size_t size);

// Runs the list parser on the bytes, likewise.
void RunListCase(const std::uint8_t* data, std::size_t size);

}  // namespace vek_fuzz
