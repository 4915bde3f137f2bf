# A thin front to CMake and scripts/. The presets build in build/<preset>.
SOURCES = git ls-files -co --exclude-standard '*.h' '*.c' '*.cpp'
UNITS = git ls-files -co --exclude-standard 'tavhttpclient/*.cpp' 'platform/*.cpp'

.PHONY: demo test lint format clean

demo:
	scripts/install-deps demo
	cmake --preset release -DTAV_HTTP_BUILD_TESTS=OFF
	cmake --build --preset release --target tavfetch
	scripts/demo build/release

test:
	scripts/install-deps test
	cmake --preset release -DTAV_HTTP_BUILD_TESTS=ON
	cmake --build --preset release
	ctest --preset release

lint:
	scripts/install-deps ci
	$(SOURCES) | xargs clang-format --dry-run -Werror
	cmake --preset clang
	$(UNITS) | xargs -P 2 -n 4 clang-tidy -p build/clang --quiet --warnings-as-errors='*'

format:
	$(SOURCES) | xargs clang-format -i

clean:
	rm -rf build
