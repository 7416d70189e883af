# The decoder of patches: its parts in memory, over files, and the program.
tarn_unit_test(tarndbudvcdiff_test
	tarndbudvcdiff_command_test.cpp
	tarndbudvcdiff_corpus_test.cpp
	tarndbudvcdiff_errors_test.cpp
	tarndbudvcdiff_files_test.cpp
	tarndbudvcdiff_parts_test.cpp
	tarndbudvcdiff_property_test.cpp
	tarndbudvcdiff_tables_test.cpp
	tarndbudvcdiff_vectors_test.cpp
	support/child_process.cpp
	support/vcdiff_builder.cpp
	LIBRARIES tarndbudvcdiff_objects vcdiff_fuzz_objects)
set_property(SOURCE tarndbudvcdiff_corpus_test.cpp PROPERTY COMPILE_DEFINITIONS
	TARN_VCDIFF_CORPUS="${PROJECT_SOURCE_DIR}/tests/fuzz/corpus/vcdiff")
add_dependencies(tarndbudvcdiff_test tarndbudvcdiff)
set_property(SOURCE tarndbudvcdiff_command_test.cpp PROPERTY COMPILE_DEFINITIONS
	TARN_VCDIFF_PROGRAM="$<TARGET_FILE:tarndbudvcdiff>")
if(TARN_SANITIZE)
	# The sanitizers take memory of their own.
	set_property(SOURCE tarndbudvcdiff_command_test.cpp APPEND PROPERTY COMPILE_DEFINITIONS TARN_SANITIZED)
endif()
foreach(call open linkat rename)
	target_link_options(tarndbudvcdiff_test PRIVATE -Wl,--wrap=${call})
endforeach()
