# The fuzz targets and what each links. Shared by the fuzz build (libFuzzer) and the test
# build, which replays every seed through each target with an ordinary main().
set(QUILLET_FUZZ_TARGETS
  fuzz_stream_message fuzz_token_expiry fuzz_signin_link fuzz_history
  fuzz_http_framer fuzz_http_gate fuzz_jwt fuzz_server_stream_message fuzz_database_url fuzz_text_engine)
set(QUILLET_FUZZ_LIBS_fuzz_stream_message quillet_dictation)
set(QUILLET_FUZZ_LIBS_fuzz_token_expiry quillet_services)
set(QUILLET_FUZZ_LIBS_fuzz_signin_link quillet_signin_link)
set(QUILLET_FUZZ_LIBS_fuzz_history quillet_services)
foreach(target fuzz_http_framer fuzz_http_gate fuzz_jwt fuzz_server_stream_message fuzz_database_url fuzz_text_engine)
  set(QUILLET_FUZZ_LIBS_${target} quillet_server_core)
endforeach()
