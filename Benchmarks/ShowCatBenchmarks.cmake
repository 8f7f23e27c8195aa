# The end-to-end `cat` benchmark drives the real app against the corvexd built beside it.
if(TARGET CorvexApp)
  find_package(Qt6 REQUIRED COMPONENTS Test)
  target_link_libraries(ShowCatBenchmarks PRIVATE CorvexApp Qt6::Test)
  if(TARGET corvexd)
    add_dependencies(ShowCatBenchmarks corvexd)
  endif()
endif()
