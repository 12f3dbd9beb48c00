# qx_layer(NAME FOLDER DEPENDS... SOURCES...)
#
# One folder, one target. A layer sees its own headers and those of the layers it depends on and no
# others: each is offered through an include directory of its own, so that a wrong include does not build.
function(qx_layer name folder)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_library(${name} OBJECT ${ARG_SOURCES})
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/include/${name})
  file(CREATE_LINK ${CMAKE_SOURCE_DIR}/${folder} ${CMAKE_BINARY_DIR}/include/${name}/${folder} SYMBOLIC)
  target_include_directories(${name} PUBLIC ${CMAKE_BINARY_DIR}/include/${name}
                                            ${CMAKE_SOURCE_DIR}/include)
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS} PRIVATE qx_options)
endfunction()

# Warnings, sanitizers and tidy for everything that is ours.
add_library(qx_options INTERFACE)
target_compile_options(qx_options INTERFACE -Wall -Wextra -Wpedantic -Werror -ftemplate-backtrace-limit=0
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 reports std::variant and std::optional members as maybe uninitialised when it inlines deeply.
  # and -Wrestrict on "text" + std::string.
  target_compile_options(qx_options INTERFACE -Wno-maybe-uninitialized -Wno-restrict)
endif()
if(QX_SANITIZE)
  add_compile_options(-fsanitize=${QX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QX_SANITIZE})
endif()
if(QX_TIDY)
  find_program(QX_CLANG_TIDY clang-tidy REQUIRED)
  set(CMAKE_CXX_CLANG_TIDY ${QX_CLANG_TIDY} --quiet)
endif()
