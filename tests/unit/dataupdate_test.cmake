# The library's units, over a platform and system calls that the tests program. Fixed paths are the process's own.
tarn_unit_test(dataupdate_test
	call_from_c.c config_test.cpp digest_test.cpp file_copy_test.cpp file_lock_test.cpp hook_test.cpp
	progress_test.cpp project_lock_test.cpp records_test.cpp service_config_test.cpp strategy_full_test.cpp
	strategy_link_test.cpp strategy_test.cpp update_error_test.cpp updater_test.cpp utils_test.cpp
	volume_handler_test.cpp
	fake_platform.cpp fake_system.cpp private_root.cpp
	LIBRARIES tarndbud_objects)
target_precompile_headers(dataupdate_test PRIVATE
	$<$<COMPILE_LANGUAGE:CXX>:<gmock/gmock.h$<ANGLE-R>> $<$<COMPILE_LANGUAGE:CXX>:<json/value.h$<ANGLE-R>>)
foreach(call flock syncfs opendir readdir read write copy_file_range fchmod linkat ioctl usleep time
		_ZNSt6chrono3_V212steady_clock3nowEv)
	target_link_options(dataupdate_test PRIVATE -Wl,--wrap=${call})
endforeach()
target_link_libraries(dataupdate_test PRIVATE ${CMAKE_DL_LIBS})
