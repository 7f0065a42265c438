# The two commands of the README, and those for developers. They use CMake.
JOBS ?= $(shell nproc)
DEMO_ARGS ?=
PREFIX ?= /usr/local
BUILD_DIR ?= build/release

.PHONY: help release demo test check asan tsan lint coverage bench soak format install dist deb manual clean
help:
	@sed -n 's/^## //p' $(firstword $(MAKEFILE_LIST))

define build
	@cmake --preset $(1) > build-$(1).log 2>&1 || { cat build-$(1).log; rm -f build-$(1).log; exit 1; }; \
	rm -f build-$(1).log
	cmake --build --preset $(1) -j $(JOBS)
endef

## make demo     runs audio while devices connect and disconnect; needs no sound hardware
demo: release
	build/release/tools/dxr/dxr demo $(DEMO_ARGS)

## make test     builds and runs the tests
test:
	@scripts/install-packages build tests
	$(call build,dev)
	ctest --preset dev -j $(JOBS) -LE soak

## make check    formatting, clang's analysis and clang-tidy, and the tests under the sanitizers
check: lint asan tsan

asan tsan:
	@scripts/install-packages build tests
	$(call build,$@)
	ctest --preset $@ -j $(JOBS) -LE soak

lint:
	@scripts/install-packages build tests checks
	scripts/lint

## make coverage the lines that the tests reach: build/coverage/report.txt and report.html
coverage:
	@scripts/install-packages build tests release
	$(call build,coverage)
	-ctest --preset coverage -j $(JOBS) -LE soak --quiet
	gcovr --root . --exclude tests --exclude fuzz --exclude bench --exclude-throw-branches --print-summary \
	    --txt build/coverage/report.txt --html-details build/coverage/report.html build/coverage

## make bench    runs the benchmarks, which compare the library with alternatives
bench:
	@scripts/install-packages build tests bench
	scripts/bench

## make soak     runs the long tests: an hour of audio, an emulated kernel, the packages, the fuzzers
soak:
	@scripts/install-packages build tests checks kernel
	scripts/soak

format:
	git ls-files '*.h' '*.cpp' ':!python' | xargs clang-format -i

## make release  builds library, command and examples
release:
	@scripts/install-packages build
	$(call build,release)

## make install  installs under PREFIX, by default /usr/local; DESTDIR is prepended
install: release
	DESTDIR="$(DESTDIR)" cmake --install "$(BUILD_DIR)" --prefix "$(PREFIX)"

## make manual   builds the manual and the API reference in build/manual/html
manual:
	@scripts/install-packages packaging
	scripts/manual

## make dist     packs the committed files into a tarball that builds without git
VERSION := $(word 3,$(shell grep -oE 'dxr VERSION [0-9.]+' CMakeLists.txt))
dist:
	@mkdir -p build
	git archive --prefix=dxr-$(VERSION)/ HEAD | gzip -9n > build/dxr-$(VERSION).tar.gz

## make deb      builds Debian packages in build/deb
deb: dist
	@scripts/install-packages build packaging
	rm -rf build/deb && mkdir -p build/deb && tar -xzf build/dxr-$(VERSION).tar.gz -C build/deb
	cd build/deb/dxr-$(VERSION) && dpkg-buildpackage -us -uc -b -j$(JOBS)
	lintian --suppress-tags bogus-mail-host,bogus-mail-host-in-debian-changelog --allow-root \
		--fail-on error,warning build/deb/*.changes # the packages are not published yet

clean:
	rm -rf build out
