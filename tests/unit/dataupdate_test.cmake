# The library's units, over a platform and system calls that the tests program. Fixed paths are the process's own.
tarn_unit_test(dataupdate_test
	call_from_c.c config_test.cpp digest_test.cpp digests_ahead_test.cpp directory_walk_test.cpp download_source_test.cpp early_digests_test.cpp file_copy_test.cpp file_list_test.cpp file_lock_test.cpp hook_test.cpp
	info_getter_test.cpp init_service_test.cpp installation_test.cpp interface_test.cpp interruption_test.cpp large_record_test.cpp linked_tree_test.cpp
	patch_conflicts_test.cpp patch_description_test.cpp patcher_test.cpp progress_test.cpp project_lock_test.cpp records_test.cpp replacement_plan_test.cpp replacement_scope_test.cpp service_config_test.cpp
	sql_script_test.cpp strategy_diff_many_test.cpp strategy_diff_test.cpp strategy_full_test.cpp strategy_link_test.cpp
	strategy_test.cpp staged_changes_test.cpp update_error_test.cpp update_test.cpp updater_test.cpp utils_test.cpp validation_test.cpp
	vanishing_directory_test.cpp volume_handler_test.cpp
	fake_platform.cpp fake_system.cpp live_objects.cpp private_root.cpp
	LIBRARIES tarndbud_objects)
# A cache of compilers' results cannot tell what a precompiled header held.
if(NOT CMAKE_CXX_COMPILER_LAUNCHER)
	target_precompile_headers(dataupdate_test PRIVATE
		$<$<COMPILE_LANGUAGE:CXX>:<gmock/gmock.h$<ANGLE-R>> $<$<COMPILE_LANGUAGE:CXX>:<json/value.h$<ANGLE-R>>)
endif()
foreach(call open flock syncfs fsync opendir readdir read write copy_file_range fchmod linkat renameat2 ioctl usleep time
		_ZNSt6chrono3_V212steady_clock3nowEv)
	target_link_options(dataupdate_test PRIVATE -Wl,--wrap=${call})
endforeach()
target_link_libraries(dataupdate_test PRIVATE ${CMAKE_DL_LIBS})

# The built library's exports are held against a list that is reviewed when it changes.
add_dependencies(dataupdate_test tarndbud)
set_property(SOURCE interface_test.cpp PROPERTY COMPILE_DEFINITIONS
	TARN_LIBRARY="$<TARGET_FILE:tarndbud>"
	TARN_EXPORTED_SYMBOLS="${CMAKE_CURRENT_SOURCE_DIR}/exported_symbols.txt")

# Reads 12 GiB of nothing, so it has a label by which instrumented runs leave it out.
add_executable(dataupdate_slow_test digest_slow_test.cpp fake_platform.cpp)
target_link_libraries(dataupdate_slow_test PRIVATE
	tarndbud_objects tarn_test_support GTest::gmock GTest::gtest_main)
gtest_discover_tests(dataupdate_slow_test TEST_PREFIX dataupdate_slow_test. NO_PRETTY_VALUES PROPERTIES LABELS slow TIMEOUT 600)
