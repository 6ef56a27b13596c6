// The layer types: the one list that the factory is made of, and whatever else has to know them all.
#pragma once

#include "custom_ops/vek_argmax.h"
#include "custom_ops/vek_batchtospace.h"
#include "custom_ops/vek_broadcast.h"
#include "custom_ops/vek_concat.h"
#include "custom_ops/vek_datastrideconv.h"
#include "custom_ops/vek_depthtospace.h"
#include "custom_ops/vek_ewo.h"
#include "custom_ops/vek_gather.h"
#include "custom_ops/vek_l2norm.h"
#include "custom_ops/vek_matmul.h"
#include "custom_ops/vek_pad.h"
#include "custom_ops/vek_permute.h"
#include "custom_ops/vek_reshape.h"
#include "custom_ops/vek_softmax.h"
#include "custom_ops/vek_spacetobatch.h"
#include "custom_ops/vek_spacetodepth.h"

// Expands to ENTRY(type name, class) for each, in the order in which the factory compares them.
#define VEK_LAYER_TYPES(ENTRY)                 \
  ENTRY("SOFTMAX", VekSoftmax)                 \
  ENTRY("DATA_STRIDE_CONV", VekDataStrideConv) \
  ENTRY("RESHAPE", VekReshape)                 \
  ENTRY("BROADCAST", VekBroadcast)             \
  ENTRY("ARGMAX", VekArgmax)                   \
  ENTRY("NORMALIZE", VekL2Norm)                \
  ENTRY("MATMUL", VekMatmul)                   \
  ENTRY("PERMUTE", VekPermute)                 \
  ENTRY("SWCONCAT", VekConcat)                 \
  ENTRY("DEPTHTOSPACE", VekDepthToSpace)       \
  ENTRY("PAD", VekPad)                         \
  ENTRY("GATHER", VekGather)                   \
  ENTRY("ELTWISE", VekEwo)                     \
  ENTRY("SPACETOBATCH", VekSpaceToBatch)       \
  ENTRY("SPACETODEPTH", VekSpaceToDepth)       \
  ENTRY("BATCHTOSPACE", VekBatchToSpace)
