# The dynamic symbols of libvok: its public API and nothing else.
#
# vok_write_version_script(OUTPUT HEADERS...) writes a linker version script that exports, from
# the public headers, every class defined at namespace scope (its members, typeinfo and vtable),
# every function declared at namespace scope and every extern variable; everything else (the
# implementation classes, the C list functions, instantiations of standard-library templates) is
# local. A new public header or class is exported without editing anything here.
#
# What counts as a declaration is read from the headers' layout (clang-format): namespace-scope
# declarations start in column 0, inside "namespace NAME {" ... "}  // namespace NAME". A class
# template is header-only and exports nothing.
#
# The GNU ld script lexer takes no '(', '<' or '+' in a pattern: a function is matched as
# "NAME?*" ('?' stands for the opening parenthesis), an operator with one '?' per character.

function(vok_write_version_script output)
  set(patterns "")
  foreach(header ${ARGN})
    file(STRINGS ${header} lines)
    set(namespace "")
    set(afterTemplate FALSE)
    foreach(line IN LISTS lines)
      if(line MATCHES "^namespace ([A-Za-z_][A-Za-z0-9_]*) {")
        if(namespace STREQUAL "")
          set(namespace ${CMAKE_MATCH_1})
        else()
          set(namespace "${namespace}::${CMAKE_MATCH_1}")
        endif()
        continue()
      elseif(line MATCHES "^}  // namespace")
        string(REGEX REPLACE "(::)?[A-Za-z_0-9]+$" "" namespace "${namespace}")
        continue()
      endif()
      if(namespace STREQUAL "")
        continue()
      endif()
      set(wasTemplate ${afterTemplate})
      set(afterTemplate FALSE)
      if(line MATCHES "^template ")
        set(afterTemplate TRUE)
      elseif(line MATCHES "^(class|struct) ([A-Za-z_][A-Za-z0-9_]*)[^;]*$")
        if(NOT wasTemplate)
          set(name "${namespace}::${CMAKE_MATCH_2}")
          list(APPEND patterns "${name}::*" "\"typeinfo for ${name}\""
               "\"typeinfo name for ${name}\"" "\"vtable for ${name}\"" "\"VTT for ${name}\"")
        endif()
      elseif(line MATCHES "^extern [^(;]*[ *&]([A-Za-z_][A-Za-z0-9_]*);")
        list(APPEND patterns "${namespace}::${CMAKE_MATCH_1}")
      elseif(line MATCHES "^(typedef|using|enum|static|#)")
      elseif(line MATCHES "^[A-Za-z_][^=;(]*[ *&]operator([^(A-Za-z_ ]+)\\(")
        string(REGEX REPLACE "." "?" wildcard "${CMAKE_MATCH_1}")
        list(APPEND patterns "${namespace}::operator${wildcard}?*")
      elseif(line MATCHES "^[A-Za-z_][^=;(]*[ *&]([A-Za-z_][A-Za-z0-9_]*)\\(")
        list(APPEND patterns "${namespace}::${CMAKE_MATCH_1}?*")
      endif()
    endforeach()
  endforeach()
  list(REMOVE_DUPLICATES patterns)
  list(SORT patterns)
  set(body "")
  foreach(pattern IN LISTS patterns)
    string(APPEND body "      ${pattern};\n")
  endforeach()
  string(CONCAT content "/* Generated from the public headers by cmake/VokExports.cmake. */\n"
         "VOK_0 {\n  global:\n    extern \"C++\" {\n${body}    };\n  local:\n    *;\n};\n")
  # Written only when it changes, so that the library is relinked only then.
  file(CONFIGURE OUTPUT ${output} CONTENT "${content}" @ONLY)
endfunction()
