# Every fuzz target built with the project's compiler against a plain main() that runs each file
# of its seed corpus once, so that the corpus (and every reproducer in it) runs with the unit
# tests and under their sanitizer build.
include(${CMAKE_CURRENT_LIST_DIR}/Targets.cmake)
foreach(name IN LISTS TAVOLAR_FUZZ_TARGETS)
  tavolar_fuzz_buildable(${name} buildable)
  if(NOT buildable)
    continue()
  endif()
  add_executable(replay_${name} ${CMAKE_CURRENT_LIST_DIR}/${name}.cpp ${CMAKE_CURRENT_LIST_DIR}/ReplayMain.cpp)
  tavolar_fuzz_link(replay_${name} ${name})
  add_test(NAME fuzz_corpus_${name} COMMAND replay_${name} ${CMAKE_CURRENT_LIST_DIR}/corpus/${name})
  set_tests_properties(fuzz_corpus_${name} PROPERTIES LABELS unit)
endforeach()
