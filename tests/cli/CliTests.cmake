# The command-line host's tests run the built program as a subprocess, so they need it built and
# its path compiled in.
if(NOT TARGET tavolar-cli)
  return()
endif()
tavolar_add_test_folder(cli LABELS unit LIBRARIES tavolar_document tavolar)
target_compile_definitions(test_cli PRIVATE TAVOLAR_CLI_PATH="$<TARGET_FILE:tavolar-cli>")
add_dependencies(test_cli tavolar-cli)
