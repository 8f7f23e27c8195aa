# The daemon benchmarks start the corvexd built beside them.
if(TARGET corvexd)
  add_dependencies(DaemonBenchmarks corvexd)
  add_dependencies(DaemonLoadBenchmarks corvexd)
endif()
