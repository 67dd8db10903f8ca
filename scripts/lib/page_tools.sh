# Sourced after common.sh by what drives the trend page in a browser.

# install_playwright FOLDER: playwright-core as the tests of the page lock it.
install_playwright() {
  local folder=$1
  if cmp -s tests/browser/package-lock.json "$folder/package-lock.json"; then return; fi
  mkdir -p "$folder"
  cp tests/browser/{package.json,package-lock.json,.npmrc} "$folder/"
  if ! npm --prefix "$folder" ci --ignore-scripts --silent; then
    rm "$folder/package-lock.json"
    fail "npm could not fetch playwright-core"
  fi
}
