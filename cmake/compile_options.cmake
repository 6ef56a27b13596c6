# How everything in this project is compiled: the interface target `vek_compile_options` (warnings, arithmetic,
# sanitizers, coverage) and the function `vek_harden` for what ships.
add_library(vek_compile_options INTERFACE)

set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_EXTENSIONS OFF)

target_compile_options(vek_compile_options INTERFACE
  -Wall -Wextra -Wpedantic -Wformat=2 -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Wold-style-cast
  # Results are defined bit for bit: a fused multiply-add only where the source writes one.
  -ffp-contract=off
  # Neither changes a value: no errno from the maths functions, no floating-point traps. They let loops vectorise.
  -fno-math-errno -fno-trapping-math
  # As on the target.
  -funsigned-char)

# GCC 12 at -O3 takes `"text" + std::string` for a copy that overlaps: https://gcc.gnu.org/PR105651
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(vek_compile_options INTERFACE -Wno-restrict)
endif()

if(VEK_WERROR)
  target_compile_options(vek_compile_options INTERFACE -Werror)
endif()

if(VEK_SANITIZE)
  target_compile_options(vek_compile_options INTERFACE
    -fsanitize=${VEK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(vek_compile_options INTERFACE -fsanitize=${VEK_SANITIZE})
endif()

if(VEK_FUZZ)
  target_compile_options(vek_compile_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# Hardening of a release build; sanitized and instrumented builds do without.
function(vek_harden target)
  target_link_options(${target} PRIVATE LINKER:-z,relro,-z,now,-z,noexecstack)
  if(VEK_SANITIZE OR VEK_COVERAGE)
    return()
  endif()
  target_compile_options(${target} PRIVATE -fstack-protector-strong
    $<$<CONFIG:Release,RelWithDebInfo>:-U_FORTIFY_SOURCE> $<$<CONFIG:Release,RelWithDebInfo>:-D_FORTIFY_SOURCE=2>)
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    target_compile_options(${target} PRIVATE -mbranch-protection=standard)
  endif()
endfunction()
