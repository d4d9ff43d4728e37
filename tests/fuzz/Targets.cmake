# The fuzz targets: one source file NAME.cpp each, with its seed corpus in corpus/NAME. Targets that
# read what only the hosts build (documents, the command line's sound files and options) are left
# out of builds without the hosts.
set(TAVOLAR_FUZZ_TARGETS keyed_archive calibration_file device_uid sound_file document command_line)
set(TAVOLAR_FUZZ_APP_TARGETS sound_file document command_line)

# The command line's sources that read outside input, and none that registers a subcommand, built
# once for all the targets that need them. CLI11 is header-only, so it is found here again.
if(TARGET tavolar_document AND NOT TARGET tavolar_fuzz_cli)
  find_package(CLI11 QUIET)
  if(CLI11_FOUND)
    add_library(tavolar_fuzz_cli STATIC EXCLUDE_FROM_ALL
                ${PROJECT_SOURCE_DIR}/app/cli/AudioFiles.cpp ${PROJECT_SOURCE_DIR}/app/cli/CommandLine.cpp
                ${PROJECT_SOURCE_DIR}/app/cli/RecordDescription.cpp ${PROJECT_SOURCE_DIR}/app/cli/RecordStore.cpp
                ${PROJECT_SOURCE_DIR}/app/cli/SweepOptions.cpp)
    target_include_directories(tavolar_fuzz_cli PUBLIC ${PROJECT_SOURCE_DIR}/app/cli)
    target_link_libraries(tavolar_fuzz_cli PUBLIC tavolar_document tavolar CLI11::CLI11)
  endif()
endif()

# True when this build has what fuzz target name needs.
function(tavolar_fuzz_buildable name result)
  if(name IN_LIST TAVOLAR_FUZZ_APP_TARGETS AND NOT TARGET tavolar_fuzz_cli)
    set(${result} FALSE PARENT_SCOPE)
  else()
    set(${result} TRUE PARENT_SCOPE)
  endif()
endfunction()

# Links executable with what fuzz target name needs.
function(tavolar_fuzz_link executable name)
  target_include_directories(${executable} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  if(name IN_LIST TAVOLAR_FUZZ_APP_TARGETS)
    target_link_libraries(${executable} PRIVATE tavolar_fuzz_cli)
  else()
    target_link_libraries(${executable} PRIVATE tavolar)
  endif()
endfunction()
