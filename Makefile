# Top-level entry points: deps, build, test, demo, bench.
SHELL := /bin/bash
JOBS ?= $(shell nproc)
BUILD_PRESETS := x86_64 i386
TEST_PRESETS := x86_64 i386 x86_64-asan

.PHONY: all deps build test demo bench realism deb deb-check clean $(addprefix build-,$(TEST_PRESETS)) $(addprefix test-,$(TEST_PRESETS))

all: build

deps:
	@scripts/install-deps

$(addprefix build-,$(TEST_PRESETS)): build-%: deps
	@mkdir -p build
	@cmake --preset $* >build/configure-$*.log 2>&1 || (cat build/configure-$*.log; exit 1)
	cmake --build --preset $* -j$(JOBS)

build: $(addprefix build-,$(BUILD_PRESETS))

# The test programs run under scripts/settings-guard, which fails them if
# they touch /etc/tavk05rf.conf.
$(addprefix test-,$(TEST_PRESETS)): test-%: build-%
	scripts/settings-guard ctest --preset $* -j$(JOBS)

# NIST's WSQ reference set, when it lies next to the project (not part of it).
WSQ_REFERENCE ?= $(abspath $(CURDIR)/../shared/wsq-reference)

# The whole suite on both ABIs and under the sanitizers, then the WSQ
# compliance measures on NIST's reference set (skipped when it is absent),
# then the check that both ABIs compute identical images, then the Debian
# packages built and used by hosts, then the benchmarks and the demo checked
# for leaving the workstation's settings file alone.
test: $(addprefix test-,$(TEST_PRESETS))
	@scripts/wsq-conformance --tool build/x86_64/bin/tavk05-wsqtool --other-abi build/i386/bin/tavk05-wsqtool "$(WSQ_REFERENCE)"
	@scripts/cross-abi-check
	@scripts/make-deb
	@scripts/deb-check
	@scripts/settings-guard

demo: build
	@scripts/demo

# Every stage beside OpenCV on x86_64, then the same benchmarks built for the
# product ABI (i386, without an OpenCV of its own) and their medians set
# beside the x86_64 ones and OpenCV's. The benchmark program gives its sensors
# a settings file of its own.
bench: build-x86_64
	@cmake --preset i386 -DTAVK05_BENCH=ON >build/configure-i386.log 2>&1 || (cat build/configure-i386.log; exit 1)
	cmake --build --preset i386 --target bench_tavk05 -j$(JOBS)
	TAVK05_BENCH_TABLE=$(CURDIR)/build/bench-x86_64.txt \
	  build/x86_64/bin/bench_tavk05 --benchmark_counters_tabular=true $(BENCH_ARGS)
	TAVK05_BENCH_BESIDE=$(CURDIR)/build/bench-x86_64.txt \
	  build/i386/bin/bench_tavk05 --benchmark_counters_tabular=true $(BENCH_ARGS)

# How libfprint's bozorth3 matcher scores the virtual fingers (not part of
# test): genuine and false match rates and score distributions over the
# seed range REALISM_SEEDS, and the round trip of a print given with image=.
REALISM_SEEDS ?= 1-200
realism: build-x86_64
	@test -x build/x86_64/bin/tavk05-realism || (echo "realism: libfprint-2 was not found when build/x86_64 was configured"; exit 1)
	@# A failed capture is reported in the figures; the round trip follows all the same.
	-build/x86_64/bin/tavk05-realism $(REALISM_SEEDS)
	TAVK05_CONF=build/realism.conf build/x86_64/bin/tavk05 --virtual='0:model=7,scene=flat,seed=3,impression=2' \
	  capture --now -o build/realism-print.png >/dev/null
	build/x86_64/bin/tavk05-realism --image build/realism-print.png

# Debian packages for amd64 and i386 in build/deb, checked by lintian.
deb: deps
	@scripts/make-deb

# The packages unpacked and used by C and C++ hosts on the virtual scanner.
deb-check: deb
	@scripts/deb-check

clean:
	rm -rf build
