/* The reference host as a C library, libvekcustom_c.so: for Python's ctypes and any other language that calls C.

   Objects are handles, made and ended by the functions here. No exception leaves: a function that makes something returns
   null, and vek_error() says why. A layer must not be used by two threads at once; distinct layers may run at once. What a
   layer prints during a call is kept with it and does not reach standard output. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct vek_plugin vek_plugin; /* a loaded plug-in */
typedef struct vek_buffer vek_buffer; /* the description of a tensor buffer, without its bytes */
typedef struct vek_layer vek_layer;

/* Why the last function that failed in this thread did. */
const char* vek_error(void);

/* --- The plug-in. A path without a slash is a name for the dynamic loader. It stays loaded until the process ends, and
   its log's threshold, which all users in the process share, is set to INFO. */
vek_plugin* vek_open(const char* path);
const char* vek_plugin_path(const vek_plugin* plugin);
void vek_set_log_level(vek_plugin* plugin,
                       const char* level); /* "NONE", "ERROR", "WARNING", "INFO" or "DEBUG" */

/* --- What is known of layer types. */
const char* vek_layer_type(size_t index); /* null beyond the last */
const char* vek_element_types(
    const char* type); /* of input 0, NumPy's names with blanks between; null for no type */

/* --- Descriptions. */
typedef struct vek_format { /* in the words of zeb/pux_dnn_buf_attrs.h */
  int32_t bitdepth;
  int32_t plane_pack;
  int32_t exp;
  uint8_t is_signed;
  uint8_t is_float;
  uint8_t q8a;
  uint8_t q8a_zero;
  float q8a_scale;
} vek_format;

/* A buffer of that shape and layout; strides in bytes, 0 for those without padding. Null where 32 bits cannot tell its
   size, or the strides are below what rows and planes take. */
vek_buffer* vek_describe(const uint32_t* dims, size_t rank, const vek_format* format, uint32_t line_stride,
                         uint32_t plane_stride);

/* Any answers to the layer's questions, such as another host's: they need not agree. */
typedef struct vek_answers {
  const uint32_t* dims;
  size_t dims_count;
  const uint32_t* strides;
  size_t strides_count;
  uint32_t num_dims;
  uint32_t size;
  uint32_t nchw[4];
  uint32_t line_stride;
  uint32_t plane_stride;
  uint8_t strided;
  uint8_t interleaved;
  vek_format format;
} vek_answers;
vek_buffer* vek_describe_answers(const vek_answers* answers);

void vek_forget(vek_buffer* buffer);
uint32_t vek_bytes(const vek_buffer* buffer); /* GetSize: of the whole buffer, padding included */
uint32_t vek_line_stride(const vek_buffer* buffer);
uint32_t vek_plane_stride(const vek_buffer* buffer);

/* Between dense order and the layout of a description by vek_describe. What is padding stays as it is. */
void vek_pack(const vek_buffer* buffer, const void* dense, void* bytes);
void vek_unpack(const vek_buffer* buffer, const void* bytes, void* dense);

/* --- Layers. Attributes are texts by key: `count` keys and as many values. */
typedef struct vek_attributes {
  const char* const* keys;
  const char* const* values;
  size_t count;
} vek_attributes;

/* The shape that a layer's output has; where attributes and inputs do not fit, some shape. Writes up to `room` extents.
   Returns the rank; 0 too for no such type and for no input. */
size_t vek_output_shape(const char* type, const vek_attributes* attributes, const vek_buffer* const* inputs,
                        size_t input_count, uint32_t* dims, size_t room);

/* What a call ended with; VEK_SPOKE is added where vek_log has lines of it. */
enum {
  VEK_DONE = 0,
  VEK_REFUSED = 1, /* the layer returned false */
  VEK_THREW = 2,   /* it let an exception through: vek_error() */
  VEK_CRASHED = 3, /* vek_execute_guarded alone: vek_error() */
  VEK_SPOKE = 4
};

vek_layer* vek_make(vek_plugin* plugin, const char* type);
void vek_destroy(vek_layer* layer);
/* A null description stands for a null pointer. */
int vek_configure(vek_layer* layer, const vek_attributes* attributes, const vek_buffer* const* inputs,
                  size_t input_count, const vek_buffer* const* outputs, size_t output_count);
int vek_execute(vek_layer* layer, void** inputs, void** outputs);
/* Runs in child processes, on copies between unmapped pages: accesses outside of the buffers that the last vek_configure
   described are found, and harm nobody. Outputs are written where it went well. */
int vek_execute_guarded(vek_layer* layer, void** inputs, void** outputs);
/* What the last call printed; "" for nothing. Valid until the next. */
const char* vek_log(const vek_layer* layer);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
