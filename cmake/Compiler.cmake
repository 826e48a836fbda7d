# Compiler settings of all targets. A warning of an unknown compiler must not stop a user's or a
# packager's build; the presets of the project's own checks turn this on.
option(CORVALEN_WARNINGS_AS_ERRORS "stop the build at a warning" OFF)
add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(CORVALEN_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # g++ 12 reports a false overlap in std::string's assignment from a literal (GCC bug 105329).
  add_compile_options(-Wno-restrict)
endif()
# 64-bit file sizes and times, also on 32-bit machines.
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

if(CORVALEN_SANITIZE)
  add_compile_options(-fsanitize=${CORVALEN_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${CORVALEN_SANITIZE})
elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
  # No library replaces our functions at load time, so they may be inlined and called directly.
  add_compile_options(-fno-semantic-interposition)
  add_compile_options(-fstack-protector-strong -ffunction-sections -fdata-sections)
  add_compile_definitions(_FORTIFY_SOURCE=2)
  add_link_options(-Wl,--gc-sections -Wl,-z,relro,-z,now)
endif()

if(CORVALEN_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()
