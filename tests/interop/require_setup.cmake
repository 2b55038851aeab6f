# A list as a property's value does not survive the discovery of cases.
foreach(case IN LISTS interop_test_TESTS)
  set_tests_properties("${case}" PROPERTIES FIXTURES_REQUIRED "collected_logs;interop_packages")
endforeach()
