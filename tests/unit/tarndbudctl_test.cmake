# The administrator's program: its parts, and its commands over doubles of the library.
tarn_unit_test(tarndbudctl_test
	tarndbudctl_arguments_test.cpp
	tarndbudctl_budget_test.cpp
	tarndbudctl_check_test.cpp
	tarndbudctl_document_test.cpp
	tarndbudctl_download_test.cpp
	tarndbudctl_failure_test.cpp
	tarndbudctl_files_test.cpp
	tarndbudctl_import_test.cpp
	tarndbudctl_hold_test.cpp
	tarndbudctl_messages_test.cpp
	tarndbudctl_metrics_test.cpp
	tarndbudctl_move_output_test.cpp
	tarndbudctl_move_test.cpp
	tarndbudctl_next_run_test.cpp
	tarndbudctl_package_test.cpp
	tarndbudctl_place_test.cpp
	tarndbudctl_plan_test.cpp
	tarndbudctl_progress_test.cpp
	tarndbudctl_program_test.cpp
	tarndbudctl_read_test.cpp
	tarndbudctl_recording_test.cpp
	tarndbudctl_rejection_test.cpp
	tarndbudctl_repair_test.cpp
	tarndbudctl_safety_test.cpp
	tarndbudctl_schedule_test.cpp
	tarndbudctl_settings_test.cpp
	tarndbudctl_status_test.cpp
	tarndbudctl_temporary_area_test.cpp
	tarndbudctl_text_test.cpp
	tarndbudctl_update_test.cpp
	tarndbudctl_volume_test.cpp
	private_root.cpp
	LIBRARIES tarndbudctl_objects tarn_base)
# The rows about failures are compared with what the program makes of them.
set_property(SOURCE tarndbudctl_messages_test.cpp PROPERTY COMPILE_DEFINITIONS
	TARN_MESSAGES="${PROJECT_SOURCE_DIR}/docs/messages.md")
