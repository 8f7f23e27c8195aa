# The terminal view draws with Qt; the benchmark runs it on Qt's offscreen platform.
target_link_libraries(TerminalViewBenchmarks PRIVATE CorvexApp)
