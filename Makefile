# The front door: each target installs what is missing, builds and runs.
PYTHON := /usr/bin/python3
PRESET := release
PLUGIN = build/$(PRESET)/plugin
# What `make test`, `make asan` and `make leaks` run: T=tests/test_wire.py, ARGS="-x -k cut".
T := tests

.PHONY: build demo run test asan leaks windows bench torture validate lint format clean packages

packages:
	@tools/install-packages

build: packages
	@cmake --preset $(PRESET) -Wno-dev > build-$(PRESET).log 2>&1 || { cat build-$(PRESET).log; exit 1; }
	@rm -f build-$(PRESET).log
	@cmake --build --preset $(PRESET)

demo: build
	@$(PYTHON) tools/demo.py --plugin $(PLUGIN)/Content/Python

run: build
	@$(PYTHON) -m sim --plugin $(PLUGIN)/Content/Python

test: build
	@KESTRIX_PLUGIN=$(PLUGIN) $(PYTHON) -m pytest -q -p no:cacheprovider $(T) $(ARGS)

# The sanitizers' runtimes have to be there before the interpreter; it keeps memory on purpose, so
# leaks aren't counted.
asan: PRESET := asan
asan:
	@$(MAKE) --no-print-directory build PRESET=asan
	@KESTRIX_PLUGIN=$(PLUGIN) PYTHONMALLOC=malloc ASAN_OPTIONS=detect_leaks=0 \
	LD_PRELOAD="$$(g++ -print-file-name=libasan.so) $$(g++ -print-file-name=libstdc++.so)" \
	$(PYTHON) -m pytest -q -p no:cacheprovider $(T) $(ARGS)

# In an interpreter built for debugging every reference is counted. ARGS="--seed 7" goes to the count.
leaks: PRESET := pydebug
leaks: PYTHON := /usr/bin/python3.11d
leaks:
	@tools/install-packages python3.11-dbg
	@$(MAKE) --no-print-directory build PRESET=$(PRESET)
	@KESTRIX_PLUGIN=$(PLUGIN) $(PYTHON) -m pytest -q -p no:cacheprovider $(T)
	@KESTRIX_PLUGIN=$(PLUGIN) $(PYTHON) tests/torture --only failures --full $(ARGS)

# Cross-compiles the plugin for Windows, and checks that nothing but Windows and its Python is needed.
SDK := build/windows-python
windows: PRESET := windows-cross
windows: $(SDK)/libpython311.a
	@$(MAKE) --no-print-directory build PRESET=$(PRESET)
	@$(PYTHON) tools/windows/check_module.py $(PLUGIN)/Content/Python/*.pyd $(SDK)/python311.def

$(SDK)/libpython311.a: tools/windows/python_sdk.py tools/windows/pyconfig.h
	@tools/install-packages g++-mingw-w64-x86-64-posix
	@$(PYTHON) tools/windows/python_sdk.py $(SDK)

# Ratios of this run, side by side; also written to build/bench.json.
bench: build
	@cmake --build --preset $(PRESET) --target bench_editor
	@$(PYTHON) bench/run.py --json build/bench.json $(ARGS)

# Random and broken input from every side; ARGS="--only wire --seed 7" runs one round again.
torture: build
	@KESTRIX_PLUGIN=$(PLUGIN) $(PYTHON) tests/torture $(ARGS)

# Khronos' validator over what the stand-in exports; it comes from npm. ARGS: other GLB files.
validate: packages
	@command -v npm > /dev/null || tools/install-packages nodejs npm
	@npm install --silent --no-audit --no-fund --prefix build/validator gltf-validator
	@$(PYTHON) tools/validate_glb.py build/validator/node_modules $(ARGS)

lint: build
	@tools/install-packages clang-format clang-tidy
	@clang-format --dry-run -Werror $$(git ls-files 'src/*.cpp' 'src/*.h')
	@sed -e 's/-fpch-preprocess//; s/-Winvalid-pch//; s/-include [^ ]*cmake_pch.hxx//' \
	  build/$(PRESET)/compile_commands.json > build/compile_commands.json
	@git ls-files 'src/*.cpp' | xargs -P $$(nproc) -n 4 clang-tidy -p build --quiet 2>/dev/null

format:
	@tools/install-packages clang-format
	@clang-format -i $$(git ls-files 'src/*.cpp' 'src/*.h')

clean:
	@rm -rf build
