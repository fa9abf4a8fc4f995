# Runs the tests of QRTR, and those of the system and of qmicli over QRTR, in the virtual machine:
#   scripts/qrtr_vm.sh -t 600 tests/interop/qrtr.sh build/test/bin/{{qrtr,interop,system}_tests,chaos_client,modem_sim}
# Each test runs in its own process. The exit status is 0 if all pass.
export PELMAR_TEST_TRANSPORT=qrtr XDG_STATE_HOME=/tmp
failures=0
modem_sim serve --qrtr --socket /tmp/modem --storage /tmp/storage >/dev/null &
for service in 228 3 17; do  # vendor-specific, NAS, SAR
  for attempt in 1 2 3 4 5; do qrtr-lookup | grep -q "^ *$service " && continue 2; sleep 1; done
  echo "FAILED: qrtr-lookup does not list service $service"
  qrtr-lookup
  failures=$((failures + 1))
done
kill %1
wait
for program in qrtr_tests interop_tests system_tests; do
  command -v $program >/dev/null || { echo "FAILED: there is no $program"; failures=$((failures + 1)); }
done
for program in qrtr_tests interop_tests system_tests; do
  for test in $($program --gtest_list_tests | awk '/^[^ ]/ { suite = $1 } /^  / { print suite $1 }' |
    grep -v -e ^Device -e ^Proxy); do
    if timeout 90 $program --gtest_filter="$test" --gtest_brief=1 >/tmp/output 2>&1 && ! grep -q SKIPPED /tmp/output; then
      echo "passed: $test"
    else
      echo "FAILED: $test"
      cat /tmp/output
      failures=$((failures + 1))
      killall modem_sim 2>/dev/null  # a test that timed out leaves it running, and the next test would use it
    fi
  done
done
[ $failures -eq 0 ]
