# Warnings and sanitizers shared by every target of the project.
add_compile_options(-Wall -Wextra)
# __FILE__ (log locations, asserts) names a file of the tree, not the machine that built it:
# an installed binary does not carry the builder's directories. The build tree is inside the
# source tree, so its map comes last and wins for generated files.
add_compile_options("-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=" "-fmacro-prefix-map=${CMAKE_BINARY_DIR}/=")
set(CMAKE_AUTOMOC ON)

if(ORVELLO_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(ORVELLO_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(ORVELLO_SANITIZE STREQUAL "fuzzer")
  # libFuzzer's coverage everywhere, its main() only in the fuzz targets (fuzz/CMakeLists.txt).
  # -O1 over Debug's -O0: several times the executions per second, asserts still on.
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "The fuzzer build needs clang (./dev fuzz configures it), not ${CMAKE_CXX_COMPILER_ID}")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined -O1)
  add_link_options(-fsanitize=address,undefined)
elseif(NOT ORVELLO_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ORVELLO_SANITIZE must be empty, address, thread or fuzzer, not '${ORVELLO_SANITIZE}'")
endif()
