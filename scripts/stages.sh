# Checks and build directories of scripts/test. Sourced by it, not run; `check` and `run` are its own.
# shellcheck shell=bash

# Lists files only, so a clone that belongs to another user (root in a container) is as good as one's own.
tracked() { git -c safe.directory="$root" -C "$root" ls-files -z -- "$@"; }

layout() { tracked '*.c' '*.cpp' '*.h' '*.hpp' | (cd "$root" && xargs -0 clang-format --dry-run --Werror); }

lint() {
    # What the macro makes is nothing to look into, and unknown to it.
    (cd "$root" && cppcheck --quiet --enable=warning,performance,portability --inline-suppr --error-exitcode=1 --library=gtk \
        '-DGST_ELEMENT_REGISTER_DEFINE(a,b,c,d)=' -Iinclude -Ishbsink -Isrc -j "$(nproc)" src shbsink tools examples)
}

# The sources of the library, the sink, the tools and the examples, with the flags of the clang build.
tidy() {
    tracked 'src/*.cpp' 'shbsink/*.c' 'tools/*.cpp' 'examples/*.c' 'examples/*.cpp' |
        (cd "$root" && xargs -0 -P "$(nproc)" -n 3 clang-tidy --quiet -p build/clang)
}

shell_scripts() {
    (cd "$root" && shellcheck -x scripts/{run,read,test,on,python,package,site} examples/*.sh .ci/run tests/make_materials.sh \
        tests/unit/no_live_objects.sh packaging/completions/*.bash packaging/debian/gst-source.postrm packaging/debian/tests/{stream,build,python,service})
}

style_checks() {
    check 'the scripts (shellcheck)' shell_scripts
    check 'the guides: links, pictures, sentences' python3 "$root/scripts/guides.py"
    check 'the table of workarounds' python3 "$root/scripts/workarounds.py"
    if style_tools_are_pinned; then
        check 'layout of the sources (clang-format)' layout
        check 'the sources (cppcheck)' lint
    else
        note "not run: clang-format and cppcheck, whose findings depend on their release (Debian 12's counts)"
    fi
}

# In a subshell: a build that fails ends it and not the whole run.
clang_warnings() (build_targets clang)

clang_checks() {
    # Without precompiled headers every file is compiled as it stands, and a missing include shows.
    CC=clang CXX=clang++ configure clang -Doptimization=0 -Db_pch=false
    check "clang's warnings" clang_warnings
    if style_tools_are_pinned; then
        check 'the sources (clang-tidy)' tidy
    else
        note "not run: clang-tidy, whose findings depend on its release (Debian 12's counts)"
    fi
}

asan_dir() {
    # Warnings are errors in the plain builds; g++ invents some inside the standard library once it instruments it.
    configure asan -Db_sanitize=address,undefined -Doptimization=1 -Dwerror=false
}

arm64_dir() { configure arm64 --cross-file "$root/tests/arm64.ini" -Dbuffer_only=true; }

tsan_dir() { configure tsan -Db_sanitize=thread -Doptimization=1 -Dwerror=false '-Dtest_parts=unit,faults,shbsink,tools,hpp,peers'; }

fuzz_dir() {
    CC=clang CXX=clang++ configure fuzz -Db_sanitize=address,undefined -Db_lundef=false -Doptimization=1 -Dtest_parts=unit,fuzz
}

# What the compiler makes for exceptions is left out, a log statement's way out of memory included.
# A log statement with a condition in it counts.
coverage_options=(--root "$root" --filter "$root/src/" --exclude-throw-branches --exclude-unreachable-branches
    --exclude-branches-by-pattern '.*LOG_(FATAL|ERR|WARN|INFO|DEBUG)\((?!.* \? )')
# What has been reached; the branches that remain are listed in docs/reports/reliability.md.
coverage_lines=99
coverage_branches=94

coverage_checks() {
    local counts=$root/build/coverage/coverage.json
    configure coverage -Db_coverage=true -Doptimization=0 -Dtest_parts=unit,faults,peers
    # Counts of earlier runs add up, and those of an earlier build count for other lines.
    find "$root/build/coverage" -name '*.gcda' -delete
    # The tracer's runs of the same programs take no branch more.
    run coverage --suite unit --suite faults --no-suite leaks
    # What rtmp2src leaves behind, the segment requests of hlsdemux and the causes of a failure take servers.
    # A source without threads takes a program of its own.
    run coverage registry hls rtmp causes exhaustion
    note 'counting ...'
    quietly gcovr "${coverage_options[@]}" --json "$counts" "$root/build/coverage" || fail 'gcovr could not count'
    gcovr --root "$root" --add-tracefile "$counts"
    gcovr --root "$root" --add-tracefile "$counts" --branches
    check "$coverage_lines % of the lines and $coverage_branches % of the branches" gcovr --root "$root" --add-tracefile "$counts" \
        --fail-under-line "$coverage_lines" --fail-under-branch "$coverage_branches"
}

# packages_in_root RELEASE: the packages of build/packages on a system that has nothing else.
packages_in_root() {
    local release=$1 place=$root/build/roots/$1.packages mirrors proxies status=0
    need_packages mmdebstrap dpkg-dev
    mapfile -t mirrors < <(own_mirrors "$release")
    mapfile -t proxies < <(own_proxies)
    as_root rm -rf --one-file-system "$place"
    mkdir -p "${place%/*}"
    as_root mmdebstrap --mode=root --variant=minbase --format=directory "${proxies[@]/#/--aptopt=}" \
        --aptopt='APT::Sandbox::User "root"' --aptopt='Acquire::Languages "none"' --dpkgopt=force-unsafe-io \
        "$release" "$place" "${mirrors[@]}"
    as_root install -m 644 /etc/resolv.conf "$place/etc/resolv.conf"
    as_root env ${http_proxy+"http_proxy=$http_proxy"} python3 "$root/tests/packaging/root_test.py" "$release" \
        "$root/build/packages/$release" "$place" || status=$?
    as_root rm -rf --one-file-system "$place"
    return "$status"
}

package_checks() {
    local release
    for release in bookworm trixie; do
        check "the packages of Debian $release (scripts/package)" "$root/scripts/package" --release "$release"
        check "the packages in an empty Debian $release" packages_in_root "$release"
    done
}
