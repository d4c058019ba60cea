# Warnings and sanitizers shared by every target of the project.
add_compile_options(-Wall -Wextra)
set(CMAKE_AUTOMOC ON)

if(ORVELLO_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(ORVELLO_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT ORVELLO_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ORVELLO_SANITIZE must be empty, address or thread, not '${ORVELLO_SANITIZE}'")
endif()
