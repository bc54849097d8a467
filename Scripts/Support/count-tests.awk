# Reads the output of a test runner and prints how many tests passed, failed and were skipped: of ctest, GoogleTest,
# "node --test", and of this project's own runners, which end with "N of M … were right" or the like.

# ctest: one line per test.
/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: / {
    if (/ Passed +[0-9.]+ sec/) passed++
    else if (/\*\*\*Skipped|\*\*\*Not Run \(Disabled\)/) skipped++
    else failed++
}

# GoogleTest, run directly: its closing lines. Behind "FAILED" and "SKIPPED" stand tests by name too.
/^\[  PASSED  \] [0-9]+ test/ { passed += $4 }
/^\[  FAILED  \] [0-9]+ test/ { failed += $4 }
/^\[  SKIPPED \] [0-9]+ test/ { skipped += $4 }

# node --test: "ℹ pass 12", or "# pass 12" in TAP.
/^(ℹ|#) pass [0-9]+$/ { passed += $3 }
/^(ℹ|#) (fail|cancelled) [0-9]+$/ { failed += $3 }
/^(ℹ|#) (skipped|todo) [0-9]+$/ { skipped += $3 }

# Tests/Packages, Tests/Commands, Scripts/fuzz, Scripts/instructions.
/^[0-9]+ of [0-9]+ checks were right$/ { passed += $1; failed += $3 - $1 }
/^[0-9]+ commands were run; [0-9]+ of [0-9]+ documents are wrong$/ { passed += $1; failed += $5 }
/^Fuzz[A-Za-z]+ +[0-9]+ .* sound$/ { passed++ }
/^Fuzz[A-Za-z]+ .*FAILED$/ { failed++ }
/^[a-z-]+ +[0-9]+ +[0-9]+ +([-+][0-9.]+ %|new)$/ { passed++ }

END { print passed + 0, failed + 0, skipped + 0 }
