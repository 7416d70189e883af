# The corpora of the fuzz targets that have no other test: one program for each, since each target has the engine's entry.
function(tarn_corpus_test name suite at_least)
	get_property(libraries TARGET ${name}_fuzz_objects PROPERTY TARN_TRIES)
	add_library(${name}_corpus_main OBJECT corpus_test.cpp)
	target_link_libraries(${name}_corpus_main PRIVATE ${name}_fuzz_objects tarn_test_support GTest::gtest)
	target_compile_definitions(${name}_corpus_main PRIVATE
		TARN_CORPUS_SUITE=${suite}
		TARN_CORPUS_SIZE=${at_least}
		TARN_CORPUS="${PROJECT_SOURCE_DIR}/tests/fuzz/corpus/${name}")
	tarn_unit_test(${name}_corpus_test private_root.cpp LIBRARIES ${name}_corpus_main ${name}_fuzz_objects ${libraries})
endfunction()

if(TARN_STANDINS)
	tarn_corpus_test(answer AnswerCorpus 15)
	tarn_corpus_test(conf ConfCorpus 17)
	tarn_corpus_test(cron CronCorpus 21)
	tarn_corpus_test(description DescriptionCorpus 39)
	tarn_corpus_test(document DocumentCorpus 37)
	tarn_corpus_test(head HeadCorpus 22)
	tarn_corpus_test(metadata MetadataCorpus 28)
	tarn_corpus_test(plan PlanCorpus 12)
	tarn_corpus_test(repository RepositoryCorpus 38)
	tarn_corpus_test(script ScriptCorpus 43)
	tarn_corpus_test(settings SettingsCorpus 29)
	tarn_corpus_test(state StateCorpus 60)
	tarn_corpus_test(tar TarCorpus 40)
endif()
