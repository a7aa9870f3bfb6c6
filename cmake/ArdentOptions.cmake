# Warnings, sanitizers and the per-kind target defaults.

set(ARDENT_SANITIZE "" CACHE STRING "Sanitizers: empty, 'address,undefined' or 'thread'")
option(ARDENT_COVERAGE "Build with coverage instrumentation" OFF)

if(ARDENT_SANITIZE)
  add_compile_options(-fsanitize=${ARDENT_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ARDENT_SANITIZE})
  if(ARDENT_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
# libFuzzer targets (fuzz/, clang only): coverage in every library the
# targets drive, not only in the targets themselves.
option(ARDENT_FUZZ "Build the libFuzzer targets of fuzz/ (clang only)" OFF)
if(ARDENT_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(ARDENT_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()

# Our own code: warnings are errors.
function(ardent_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wno-unused-parameter)
endfunction()

# libframework.so, libsdk.so -> stage/lib
function(ardent_platform_library target)
  ardent_warnings(${target})
  set_target_properties(${target} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${ARDENT_STAGE_LIB}
    BUILD_WITH_INSTALL_RPATH TRUE
    INSTALL_RPATH "$ORIGIN/:/usr/local/ardent/lib/")
endfunction()

# lib*_module.so -> stage/module. CreateModule is the only symbol a module
# needs to export; message classes other modules link against keep default
# visibility through ARDENT_EXPORT.
function(ardent_module target)
  ardent_warnings(${target})
  set_target_properties(${target} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${ARDENT_STAGE_MODULE}
    BUILD_WITH_INSTALL_RPATH TRUE
    INSTALL_RPATH "$ORIGIN/:/usr/local/ardent/lib/:/usr/local/ardent/module/:$ORIGIN/../lib/"
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN OFF)
  target_link_options(${target} PRIVATE -Wl,--no-as-needed)
  # Under ARDENT_FUZZ, clang leaves sanitizer and coverage symbols to the
  # executable that loads the module.
  if(NOT ARDENT_FUZZ)
    target_link_options(${target} PRIVATE -Wl,--no-undefined)
  endif()
endfunction()
