# The compiler's flags, and the functions that the CMakeLists.txt of the folders call.
# All of it is seen in this project only, also where a parent includes it.

include(CheckCXXCompilerFlag)
include(GNUInstallDirs)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g")

# The flags of every target, tests and benchmarks included.
add_library(kivtrap_common INTERFACE)
target_include_directories(kivtrap_common INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(kivtrap_common INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wold-style-cast -Wformat=2
  $<$<BOOL:${KIV_WERROR}>:-Werror>)
if(KIV_SANITIZE)
  target_compile_options(kivtrap_common INTERFACE
    -fsanitize=${KIV_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(kivtrap_common INTERFACE -fsanitize=${KIV_SANITIZE})
endif()

# The further flags of the product. Fortified string calls want optimisation, and hide the
# accesses that a sanitizer has to see. Not every architecture has -fcf-protection. Programs bind
# their calls of libc when they start, so no call goes by way of a stub.
check_cxx_compiler_flag(-fcf-protection KIV_HAS_CF_PROTECTION)
add_library(kivtrap_product INTERFACE)
target_link_libraries(kivtrap_product INTERFACE kivtrap_common)
target_compile_options(kivtrap_product INTERFACE
  -fno-exceptions -fno-rtti -fno-plt -ffunction-sections -fdata-sections -fstack-protector-strong
  $<$<BOOL:${KIV_HAS_CF_PROTECTION}>:-fcf-protection>)
if(NOT KIV_SANITIZE)
  target_compile_options(kivtrap_product INTERFACE
    "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
endif()

# The version as a macro, in a header that is installed beside the others.
configure_file(cmake/version.h.in include/liblocal/base/version.h)

# kiv_library(NAME [DEPENDS names...]): the static library kivtrap_NAME of every .cc in this
# folder but the tests.
function(kiv_library name)
  cmake_parse_arguments(ARG "" "" "DEPENDS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS *.cc)
  list(FILTER sources EXCLUDE REGEX "_test\\.cc$")
  list(TRANSFORM ARG_DEPENDS PREPEND kivtrap_)
  set(target kivtrap_${name})
  add_library(${target} STATIC ${sources})
  add_library(kivtrap::${name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${name} EXPORT_NAME ${name})
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/kivtrap>)
  target_link_libraries(${target} PUBLIC ${ARG_DEPENDS} PRIVATE $<BUILD_INTERFACE:kivtrap_product>)
endfunction()

# kiv_program(NAME source... DEPENDS names...): a program that needs libc alone at run time.
function(kiv_program name)
  cmake_parse_arguments(ARG "" "" "DEPENDS" ${ARGN})
  list(TRANSFORM ARG_DEPENDS PREPEND kivtrap_)
  add_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${ARG_DEPENDS} kivtrap_product)
  target_link_options(${name} PRIVATE
    -pie -Wl,-z,relro,-z,now -Wl,--gc-sections
    -static-libgcc -static-libstdc++)
endfunction()
