# The app benchmarks drive the real widgets against the corvexd built beside them.
if(TARGET CorvexApp)
  find_package(Qt6 REQUIRED COMPONENTS Test)
  target_link_libraries(AppBenchmarks PRIVATE CorvexApp Qt6::Test)
  if(TARGET corvexd)
    add_dependencies(AppBenchmarks corvexd)
  endif()
endif()
