#!/usr/bin/env bash
# Installs the Debian packages that kSieve needs to build, test and benchmark,
# and that its Snakemake workflow needs to run. (Slurm and munge, for the
# cluster test only, are installed by scripts/slurm-test.sh when asked.)
# Idempotent: packages already present are left alone and apt is not touched.
set -euo pipefail

packages=(
  g++ cmake ninja-build make          # toolchain
  googletest libgtest-dev libgmock-dev # unit and golden tests
  libbenchmark-dev valgrind           # bench/ (valgrind: instruction counts)
  clang-format                        # formatting check in CI
  libexpat1-dev zlib1g-dev libpwiz-dev # the mzML/mzXML companion extractor
  libboost-filesystem-dev libboost-iostreams-dev libboost-thread-dev  # what ProteoWizard's headers call
  libopenms-dev qtbase5-dev libboost-dev  # OpenMS reference values of the chemistry tools
  openms libpwiz-tools                # FileConverter and msconvert, peers in the companion benchmark
  snakemake comet-ms                  # the workflow (workflow/): engine and search engine
  python3-matplotlib                  # the workflow report's plots, as inline SVG
  python3-sklearn                     # the workflow's rescoring of PSMs (linear classifier)
  python3-jsonschema                  # the schema check of the workflow's mzQC files
  chromium chromium-driver python3-selenium  # the browser test of the workflow report
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
