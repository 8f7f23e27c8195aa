.PHONY: build test run bench bootstrap clean

build: bootstrap
	cmake --preset release
	cmake --build --preset release

test: bootstrap
	cmake --preset ci
	cmake --build --preset ci
	ctest --preset ci
	cmake --preset tsan
	cmake --build --preset tsan
	ctest --preset tsan

run: build
	scripts/run

bench:
	scripts/bootstrap --bench
	cmake --preset bench
	cmake --build --preset bench
	scripts/bench

bootstrap:
	scripts/bootstrap

clean:
	rm -rf build
