# A thin front to CMake and scripts/. The presets build in build/<preset>.
SOURCES = git ls-files -co --exclude-standard '*.h' '*.hpp' '*.c' '*.cpp'
UNITS = git ls-files -co --exclude-standard 'tavhttpclient/*.cpp' 'platform/*.cpp' ':!platform/windows_*'

.PHONY: demo test lint format docs clean fault fuzz soak bench windows windows-demo windows-test windows-package

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
	scripts/check-layers
	scripts/install-deps ci
	$(SOURCES) | xargs clang-format --dry-run -Werror
	cmake --preset clang
	$(UNITS) | xargs -P 2 -n 4 clang-tidy -p build/clang --quiet --warnings-as-errors='*'

# Every transfer with each of its calls failing in turn.
fault:
	scripts/install-deps test
	for p in release asan; do cmake --preset $$p -DTAV_HTTP_BUILD_TESTS=ON && \
	    cmake --build --preset $$p --target test_fault && \
	    build/$$p/tests/test_fault || exit 1; done

# make fuzz T=60: each fuzzer for T seconds.
T ?= 60
fuzz:
	scripts/install-deps ci
	cmake --preset fuzz
	cmake --build --preset fuzz
	scripts/fuzz $(T) build/fuzz

# make soak MINUTES=5 [SANITIZE=address|thread]: everything at once, beside real servers.
soak:
	scripts/install-deps test
	SANITIZE=$(SANITIZE) scripts/soak $(or $(MINUTES),5)

# make bench [QUICK=1]: beside libcurl; the quick form takes less than a minute.
bench:
	scripts/install-deps bench
	cmake --preset bench && cmake --build --preset bench
	scripts/bench build/bench $(if $(QUICK),--quick)

# The 32-bit library for Windows in build/windows/bin, and the demo under Wine.
windows:
	scripts/install-deps windows
	scripts/windows-deps i686
	cmake --preset windows
	cmake --build --preset windows

# What runs of the tests under Wine.
windows-test: windows
	scripts/windows-wine setup i686
	ctest --preset windows; status=$$?; scripts/windows-wine stop i686; exit $$status

# The zip, and a host compiled against it.
windows-package: windows
	scripts/windows-wine setup i686
	scripts/windows-package i686; status=$$?; scripts/windows-wine stop i686; exit $$status

windows-demo: windows
	scripts/windows-wine setup i686
	scripts/demo scripts/windows-tavfetch; status=$$?; \
	    scripts/windows-wine stop i686; exit $$status

format:
	$(SOURCES) | xargs clang-format -i

docs:
	scripts/install-deps docs
	mkdir -p build
	doxygen docs/Doxyfile
	@echo "the reference is in build/docs/index.html"

clean:
	rm -rf build
