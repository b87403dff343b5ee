# Helpers that turn the tests/, bench/ and examples/ folder layout into
# targets. Every glob uses CONFIGURE_DEPENDS so that adding a folder or a
# source file is picked up by the next build without a manual re-configure.

# Warnings for code we own; third-party headers come in as system headers
# and stay quiet.
function(kiv_project_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic
    -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual -Wformat=2)
  set_target_properties(${target} PROPERTIES COMPILE_WARNING_AS_ERROR ${KIV_WERROR})
endfunction()

# Lists the immediate subfolders of `dir` that contain *.cpp files, and
# returns their sources in kiv_sources_<name>.
function(kiv_source_folders dir out)
  file(GLOB children CONFIGURE_DEPENDS LIST_DIRECTORIES true "${dir}/*")
  set(names "")
  foreach(child IN LISTS children)
    if(NOT IS_DIRECTORY "${child}")
      continue()
    endif()
    file(GLOB sources CONFIGURE_DEPENDS "${child}/*.cpp")
    if(sources)
      cmake_path(GET child FILENAME name)
      list(APPEND names "${name}")
      set(kiv_sources_${name} "${sources}" PARENT_SCOPE)
    endif()
  endforeach()
  set(${out} "${names}" PARENT_SCOPE)
endfunction()

# One GoogleTest executable per tests/<subsystem>/. tests/consumer is an
# out-of-tree user of the installed package, built by CI on its own.
function(kiv_add_test_suites dir)
  kiv_source_folders("${dir}" subsystems)
  list(REMOVE_ITEM subsystems consumer)
  foreach(subsystem IN LISTS subsystems)
    set(target kiv-tests-${subsystem})
    add_executable(${target} ${kiv_sources_${subsystem}})
    target_link_libraries(${target} PRIVATE Kiv::Kiv GTest::gtest_main GTest::gmock)
    kiv_project_warnings(${target})
    # PRE_TEST: listing tests at ctest time keeps a slow or crashing
    # instrumented binary from breaking the build itself. The prefix keeps
    # equally named suites of two subsystems apart.
    gtest_discover_tests(${target}
      TEST_PREFIX "${subsystem}."
      DISCOVERY_MODE PRE_TEST
      DISCOVERY_TIMEOUT 60
      PROPERTIES TIMEOUT 300)
  endforeach()
endfunction()

# One benchmark executable per bench/<name>/, each with the shared main
# (bench/BenchMain.cpp).
function(kiv_add_benchmarks dir)
  kiv_source_folders("${dir}" names)
  foreach(name IN LISTS names)
    set(target kiv-bench-${name})
    add_executable(${target} ${kiv_sources_${name}} "${dir}/BenchMain.cpp")
    target_link_libraries(${target} PRIVATE Kiv::Kiv benchmark::benchmark)
    kiv_project_warnings(${target})
  endforeach()
endfunction()
