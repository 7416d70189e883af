# Which folder may include which: a target finds the headers of the folders that it names, and no others.
#
# Headers are included by their whole name ("base/text.h"). The root of the tree is on no include path; in its place each
# folder has a directory in the build tree that holds one header for each of its own, which includes the real one.

# tarn_folder(NAME DIRECTORY HEADERS...): the target see_NAME, to be linked by those who may include these headers.
function(tarn_folder name directory)
	set(view ${PROJECT_BINARY_DIR}/sees/${name})
	set(wanted)
	foreach(header IN LISTS ARGN)
		set(seen ${view}/${directory}/${header})
		file(CONFIGURE OUTPUT ${seen} CONTENT "#include \"${PROJECT_SOURCE_DIR}/${directory}/${header}\"\n" @ONLY)
		list(APPEND wanted ${seen})
	endforeach()
	file(GLOB_RECURSE present ${view}/*.h)
	foreach(seen IN LISTS present)
		if(NOT seen IN_LIST wanted)
			file(REMOVE ${seen})
		endif()
	endforeach()
	add_library(see_${name} INTERFACE)
	target_include_directories(see_${name} INTERFACE ${view})
endfunction()

# tarn_own_folder(NAME): likewise for all headers of the current directory and of those below it.
function(tarn_own_folder name)
	file(GLOB_RECURSE headers RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
	cmake_path(RELATIVE_PATH CMAKE_CURRENT_SOURCE_DIR BASE_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE directory)
	tarn_folder(${name} ${directory} ${headers})
endfunction()
