# quillet_add_test(<name> SOURCES ... [LIBS ...] [LABELS ...] [DESKTOP] [SESSION_ARGS ...] [ARGS ...]
#                  [ENVIRONMENT VAR=value ...] [TIMEOUT s] [TEST_NAME name])
# A second call with the same <name> and another TEST_NAME registers the same executable again.
# One executable per class under test. DESKTOP runs it inside the project's headless
# desktop session (X, session bus, accessibility bus, PulseAudio, Secret Service).
set(QUILLET_DESKTOP_SESSION ${PROJECT_SOURCE_DIR}/scripts/desktop-session.sh)

function(quillet_add_test name)
  cmake_parse_arguments(T "DESKTOP" "TIMEOUT;TEST_NAME" "SOURCES;LIBS;LABELS;SESSION_ARGS;ARGS;ENVIRONMENT" ${ARGN})
  if(NOT TARGET ${name})
    add_executable(${name} ${T_SOURCES})
    target_link_libraries(${name} PRIVATE quillet_test_support Qt6::Test ${T_LIBS})
  endif()
  if(NOT T_TEST_NAME)
    set(T_TEST_NAME ${name})
  endif()
  if(T_DESKTOP)
    add_test(NAME ${T_TEST_NAME}
      COMMAND ${QUILLET_DESKTOP_SESSION} ${T_SESSION_ARGS} -- $<TARGET_FILE:${name}> ${T_ARGS})
  else()
    add_test(NAME ${T_TEST_NAME} COMMAND ${name} ${T_ARGS})
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  set_tests_properties(${T_TEST_NAME} PROPERTIES LABELS "${T_LABELS}" TIMEOUT ${T_TIMEOUT})
  if(T_ENVIRONMENT)
    set_tests_properties(${T_TEST_NAME} PROPERTIES ENVIRONMENT "${T_ENVIRONMENT}")
  endif()
endfunction()
