# Every target sets up what it needs first. `make help` lists them.

SEEDS ?= 20000
SECONDS ?= 60
CYCLES ?= 200
ARCHITECTURE ?= i386
ARGUMENTS ?=

.DEFAULT_GOAL := help
.PHONY: help setup build check demo vm-demo machine module vm soak vm-bench package simulate bench fuzz format lint hook clean

help: ## list the targets
	@echo "make TARGET, where TARGET is one of (module, vm, soak: ARCHITECTURE=amd64 for 64 bits):"
	@sed -n 's/^\([a-z-]*\):.*## /\1|/p' Makefile | awk -F'|' '{ printf "  %-10s %s\n", $$1, $$2 }'

setup: ## install the packages and the C library that the build needs (root for packages)
	@tools/setup.sh

build: setup ## build the programs (zel, zelsend, zelmachine) into build/native
	@tools/build.sh native programs

check: ## build and test everything; KDIR=<tree> KERNEL=<bzImage>: in that kernel, too
	@tools/setup.sh qemu-system-x86
	@tools/check.sh

demo: build ## back up a live file system, restore every point and compare
	@tools/demo.sh $(ARGUMENTS)

vm-demo: build ## the same in Debian 12's kernel, or KERNEL=<bzImage> MODULE=<zelmod.ko>
	@tools/setup.sh qemu-system-x86
	@tools/vm-demo.sh "$(KERNEL)" "$(MODULE)" $(ARGUMENTS)

machine: build ## start the demonstration machine and leave it running
	@tools/machine.sh $(ARGUMENTS)

module: setup ## build zelmod.ko for Debian 12's kernel, or another: make module KDIR=<built tree>
	@tools/module.sh "$(KDIR)" $(if $(KDIR),,$(ARCHITECTURE))

vm: ## run contract and scenarios in Debian 12's kernel, or KERNEL=<bzImage> MODULE=<zelmod.ko>
	@tools/setup.sh qemu-system-x86
	@tools/vm.sh --architecture $(ARCHITECTURE) "$(KERNEL)" "$(MODULE)" $(ARGUMENTS)

soak: ## load, use and unload the module again and again in that kernel: make soak CYCLES=N
	@tools/setup.sh qemu-system-x86
	@tools/vm.sh --architecture $(ARCHITECTURE) "$(KERNEL)" "$(MODULE)" --cycles $(CYCLES) $(ARGUMENTS) Soak

vm-bench: ## measure in Debian 12's kernel, or KERNEL=<bzImage> MODULE=<zelmod.ko>
	@tools/setup.sh qemu-system-x86
	@tools/vm.sh --bench "$(KERNEL)" "$(MODULE)" $(ARGUMENTS)

package: setup ## build the Debian packages into build/packages
	@tools/setup.sh dpkg-dev debhelper dh-dkms lowdown
	@tools/package.sh

simulate: setup ## run random simulations: make simulate SEEDS=N
	@tools/build.sh i386 simulate
	@build/i386/simulate --seeds $(SEEDS) $(ARGUMENTS)

bench: setup ## measure what the module costs (release build)
	@tools/build.sh release bench
	@build/release/bench $(ARGUMENTS)

fuzz: ## feed the stream reader with made-up input: make fuzz SECONDS=N
	@tools/setup.sh clang
	@tools/build.sh fuzz streamReaderFuzz
	@mkdir -p build/fuzz/corpus
	@cd build/fuzz && ./streamReaderFuzz corpus -max_total_time=$(SECONDS) $(ARGUMENTS)

format: setup ## format all C and C++ sources in place
	@tools/lint.sh --format

lint: setup ## check format, layout rules and house rules
	@tools/lint.sh

hook: ## run the lint script before each commit in this clone
	@ln -sfn ../../tools/lint.sh .git/hooks/pre-commit

clean: ## remove what was built (keeps downloads and the machine's disk)
	@rm -rf build/i386 build/tsan build/asan build/native build/release build/fuzz \
		build/kernel-objects build/module build/module-amd64 build/vm build/vm-bench build/vm-demo \
		build/package build/packages build/real-kernel build/*.lock
