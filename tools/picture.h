/// \file
/// Pictures as tensors: PNG, PPM and PGM, of 8 or 16 bits.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "mapped_file.h"
#include "new_file.h"
#include "tensor.h"

namespace vekrun {

/// Reads a picture as 1 x C x H x W: the file's values as uint8 or uint16, or with `type` float32 those divided by the
/// largest one that the file may hold, so that 1.0 is white. `type` uint16 takes pictures of 8 bits too, as they are.
/// Throws `UsageError`.
Tensor ReadPicture(const FileBytes& file, std::optional<ElementType> type);

/// Throws `UsageError` when a tensor of that type and shape is no picture that a file of that name can hold.
void CheckIsPicture(const std::string& path, ElementType type, const Dims& dims);

/// Writes uint8, uint16, or float32 as 8 bits with 1.0 as 255; `CheckIsPicture` has passed. Throws `UsageError`.
void WritePicture(const std::string& path, const Tensor& tensor, NewFile* file);

/// \return a PNG file's bytes. Throws `std::bad_alloc`.
/// \param rows  of red, green and blue, 8 bits each.
std::string PngOf(unsigned int height, unsigned int width, const std::vector<unsigned char>& rows);

}  // namespace vekrun
