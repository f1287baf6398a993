# The fuzz targets: one LLVMFuzzerTestOneInput per reader of untrusted bytes.
# Included twice: by fuzz/CMakeLists.txt, which builds them as libFuzzer
# executables (clang, -DSYMLIFT_FUZZ=ON), and by tests/CMakeLists.txt, which
# builds them with fuzz/replay_main.cpp and replays the regression corpus
# tests/fuzz-regressions/<name>/ as a test. Each includer defines
# symlift_fuzz_target(<name> SOURCES ... DEPS ... [REPLAY_ALSO <folders>])
# first; REPLAY_ALSO names more seed folders the replay test reads as well.
set(_fuzz "${PROJECT_SOURCE_DIR}/fuzz")
symlift_fuzz_target(macho_fuzzer SOURCES ${_fuzz}/macho_fuzzer.cpp DEPS symlift_macho REPLAY_ALSO ${PROJECT_SOURCE_DIR}/tests/fixtures)
symlift_fuzz_target(dwarf_slice_fuzzer SOURCES ${_fuzz}/dwarf/fuzz_dwarf_slice.cpp DEPS symlift_dwarf REPLAY_ALSO ${PROJECT_SOURCE_DIR}/tests/fixtures)
symlift_fuzz_target(dwarf_dies_fuzzer SOURCES ${_fuzz}/dwarf/fuzz_dwarf_dies.cpp DEPS symlift_dwarf)
symlift_fuzz_target(dwarf_line_program_fuzzer SOURCES ${_fuzz}/dwarf/fuzz_dwarf_line_program.cpp DEPS symlift_dwarf)
symlift_fuzz_target(property_list_fuzzer SOURCES ${_fuzz}/property_list_fuzzer.cpp DEPS symlift_support REPLAY_ALSO ${PROJECT_SOURCE_DIR}/tests/fixtures)
symlift_fuzz_target(records_store_fuzzer SOURCES ${_fuzz}/records_store_fuzzer.cpp DEPS symlift_records)
symlift_fuzz_target(lumo_json_fuzzer SOURCES ${_fuzz}/lumo_json_fuzzer.cpp DEPS symlift_cli)
symlift_fuzz_target(response_headers_fuzzer SOURCES ${_fuzz}/response_headers_fuzzer.cpp DEPS symlift_network)
symlift_fuzz_target(swift_demangle_fuzzer SOURCES ${_fuzz}/swift_demangle_fuzzer.cpp DEPS symlift_swift_demangle)
