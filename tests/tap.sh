# Sourced by the tool's shell tests: "ok - NAME" / "not ok - NAME" per case, then "N passed,
# M failed" from summary, whose status fails if M > 0.
# LYN_TEST_STRIDE=K: sampled is true for every K-th call only (the sanitizer stage, where each run
# of lyn costs a second of loading; the Release stage runs every case).
passed=0
failed=0
stride=${LYN_TEST_STRIDE:-1}
ncase=0
sampled() {
  ncase=$((ncase + 1))
  [ $((ncase % stride)) -eq 0 ]
}
# report NAME STATUS: STATUS 0 passes; on failure the captured stderr (./err) is shown as diagnostics.
report() {
  if [ "$2" -eq 0 ]; then
    echo "ok - $1"
    passed=$((passed + 1))
  else
    echo "not ok - $1"
    failed=$((failed + 1))
    [ -s err ] && sed 's/^/#   /' err
  fi
  return 0
}
summary() {
  echo "$passed passed, $failed failed"
  [ "$failed" -eq 0 ]
}
