# Compiler warnings and the shared objects' versions, set per target: only the
# project's own targets get them, never a consumer's (when the project is a
# subdirectory of another) and never through an installed package.
#
# qmelm_warnings(TARGET... [STRICT]): -Wall -Wextra, with STRICT also
# -Wshadow -Wconversion (the code written to be clean of them), and -Werror
# when QMELM_WERROR is on.
function(qmelm_warnings)
  cmake_parse_arguments(W "STRICT" "" "" ${ARGN})
  set(_flags -Wall -Wextra)
  if(W_STRICT)
    list(APPEND _flags -Wshadow -Wconversion)
  endif()
  if(QMELM_WERROR)
    list(APPEND _flags -Werror)
  endif()
  foreach(_target IN LISTS W_UNPARSED_ARGUMENTS)
    get_target_property(_type ${_target} TYPE)
    if(NOT _type STREQUAL "INTERFACE_LIBRARY" AND NOT _type STREQUAL "UTILITY")
      target_compile_options(${_target} PRIVATE ${_flags})
    endif()
  endforeach()
endfunction()

# qmelm_warnings_in(DIR [STRICT]): qmelm_warnings on every target DIR made
# and on those of its subdirectories.
function(qmelm_warnings_in dir)
  get_property(_targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  if(_targets)
    qmelm_warnings(${_targets} ${ARGN})
  endif()
  get_property(_subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
  foreach(_sub IN LISTS _subdirs)
    qmelm_warnings_in(${_sub} ${ARGN})
  endforeach()
endfunction()

# qmelm_library_version(TARGET): libX.so.7.2.1 with the SONAME libX.so.7 (the
# project's major version: what programs linked with it ask for), and the
# libX.so link that linkers and the host's loader (lib<name>.so) look for.
function(qmelm_library_version target)
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
endfunction()
