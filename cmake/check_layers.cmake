# The layering check (ctest: "layering"; or cmake -DKT4_SOURCE_DIR=<tree> -P this file).
#
# For every file of every family in cmake/families.cmake, and every public header, it reads
# the #include lines and fails, naming file and header, when
#   - a family includes "<dir>/<header>" of another family that it does not use, or a header
#     of that family which is private to it (not in KT4_SHARES_<dir>);
#   - a family includes <kt4/<name>.h> of a family that it does not use (one above it);
#   - a public header includes the public header of a family its own family does not use;
#   - a family is said to use a family that stands above it in KT4_FAMILY_ORDER.
# The pairs in KT4_LAYER_EXCEPTIONS are let through; one that no longer occurs is named, so
# that it is taken off the list.
cmake_minimum_required(VERSION 3.25)
if(NOT KT4_SOURCE_DIR)
  get_filename_component(KT4_SOURCE_DIR "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
endif()
include(${KT4_SOURCE_DIR}/cmake/families.cmake)

set(problems "")
set(exceptions_seen "")

# Which family a public header belongs to.
foreach(fam IN LISTS KT4_FAMILY_ORDER)
  foreach(h IN LISTS KT4_PUBLIC_${fam})
    set(owner_of_${h} ${fam})
  endforeach()
endforeach()

# The order itself: a family uses only families below it.
set(below "")
foreach(fam IN LISTS KT4_FAMILY_ORDER)
  foreach(dep IN LISTS KT4_USES_${fam})
    if(NOT dep IN_LIST below)
      list(APPEND problems "cmake/families.cmake: ${fam} uses ${dep}, which does not stand below it")
    endif()
  endforeach()
  list(APPEND below ${fam})
endforeach()

# Checks one file of family fam (rel: its path in the tree).
function(check_file fam rel)
  file(STRINGS ${KT4_SOURCE_DIR}/${rel} lines REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"]")
  # -DKT4_LAYER_INJECT=<file>:<line>: an include line added to a file, to show that the check
  # catches it (the test "layering_catches").
  if(KT4_LAYER_INJECT MATCHES "^${rel}:(.+)$")
    list(APPEND lines "${CMAKE_MATCH_1}")
  endif()
  foreach(line IN LISTS lines)
    if(NOT line MATCHES "^[ \t]*#[ \t]*include[ \t]*([<\"])([^>\"]+)[>\"]")
      continue()
    endif()
    set(kind "${CMAKE_MATCH_1}")
    set(inc "${CMAKE_MATCH_2}")
    set(bad "")
    if(kind STREQUAL "\"" AND inc MATCHES "^([^/]+)/(.+)$")
      set(dir "${CMAKE_MATCH_1}")
      set(hdr "${CMAKE_MATCH_2}")
      if(dir STREQUAL fam OR NOT dir IN_LIST KT4_FAMILY_ORDER)
        continue()
      endif()
      if(NOT dir IN_LIST KT4_USES_${fam})
        set(bad "includes ${inc}: ${fam} does not use ${dir}")
      elseif(NOT hdr IN_LIST KT4_SHARES_${dir})
        set(bad "includes ${inc}, a header private to ${dir}")
      endif()
    elseif(kind STREQUAL "<" AND inc MATCHES "^kt4/([^/]+)\\.h$")
      set(name "${CMAKE_MATCH_1}")
      set(owner "${owner_of_${name}}")
      if(owner STREQUAL "")
        set(bad "includes <${inc}>, which no family owns (cmake/families.cmake)")
      elseif(NOT owner STREQUAL fam AND NOT owner IN_LIST KT4_USES_${fam})
        set(bad "includes <${inc}>: ${fam} does not use ${owner}")
      endif()
    endif()
    if(bad)
      if("${rel}:${inc}" IN_LIST KT4_LAYER_EXCEPTIONS)
        set(exceptions_seen ${exceptions_seen} "${rel}:${inc}" PARENT_SCOPE)
      else()
        set(problems ${problems} "${rel} (${fam}) ${bad}" PARENT_SCOPE)
      endif()
    endif()
  endforeach()
endfunction()

foreach(fam IN LISTS KT4_FAMILY_ORDER)
  file(GLOB files RELATIVE ${KT4_SOURCE_DIR} ${KT4_SOURCE_DIR}/${fam}/*.cpp
       ${KT4_SOURCE_DIR}/${fam}/*.h ${KT4_SOURCE_DIR}/${fam}/*.c)
  foreach(rel IN LISTS files)
    check_file(${fam} ${rel})
  endforeach()
  foreach(h IN LISTS KT4_PUBLIC_${fam})
    if(EXISTS ${KT4_SOURCE_DIR}/include/kt4/${h}.h)
      check_file(${fam} include/kt4/${h}.h)
    endif()
  endforeach()
endforeach()

foreach(e IN LISTS KT4_LAYER_EXCEPTIONS)
  if(NOT e IN_LIST exceptions_seen)
    message(STATUS "layering: the exception ${e} no longer occurs: take it off cmake/families.cmake")
  endif()
endforeach()

if(problems)
  list(JOIN problems "\n  " text)
  message(FATAL_ERROR "layering: families break the order of cmake/families.cmake:\n  ${text}")
endif()
list(LENGTH KT4_FAMILY_ORDER n)
message(STATUS "layering: ${n} families in order, no include against it")
