# Writes the client's information file: the backend addresses chosen at configure
# time and the version. A key whose cache value is empty is left out, so the
# client uses its built-in loopback default for it.
function(quillet_write_info_file path)
  set(json "{}")
  string(JSON json SET "${json}" "CFBundleShortVersionString" "\"${PROJECT_VERSION}\"")
  foreach(pair "API_BASE_URL;QUILLET_API_BASE_URL" "SITE_URL;QUILLET_SITE_URL")
    list(GET pair 0 key)
    list(GET pair 1 var)
    if(NOT "${${var}}" STREQUAL "")
      # Escape for a JSON string literal.
      string(REPLACE "\\" "\\\\" value "${${var}}")
      string(REPLACE "\"" "\\\"" value "${value}")
      string(JSON json SET "${json}" "${key}" "\"${value}\"")
    endif()
  endforeach()
  file(CONFIGURE OUTPUT "${path}" CONTENT "${json}\n" @ONLY)
endfunction()
