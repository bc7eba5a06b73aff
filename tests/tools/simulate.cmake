opal_test(simulate_tests
  SOURCES SimulateTest.cpp
  LIBS opal_simulator)
