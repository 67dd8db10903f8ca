// Finding items among thousands by parts of their path.

// "Plant/Tank/" and "Level".
export function splitPath(path) {
  const slash = path.lastIndexOf('/');
  return { folder: path.slice(0, slash + 1), name: path.slice(slash + 1) };
}

// Prepared once: lower case is needed for each letter that is typed.
export function prepareItems(items) {
  return items
    .map((item) => ({ ...item, ...splitPath(item.path), lower: item.path.toLowerCase() }))
    .sort((a, b) => (a.lower < b.lower ? -1 : a.lower > b.lower ? 1 : 0));
}

// Those whose path holds every word; the ones whose name itself holds them all come first.
export function searchItems(prepared, text) {
  const words = text.toLowerCase().split(/\s+/).filter(Boolean);
  if (words.length === 0) return prepared;
  const inName = [];
  const elsewhere = [];
  for (const item of prepared) {
    if (!words.every((word) => item.lower.includes(word))) continue;
    const name = item.lower.slice(item.folder.length);
    (words.every((word) => name.includes(word)) ? inName : elsewhere).push(item);
  }
  return inName.concat(elsewhere);
}

// Whether its values are drawn as a line; others get a lane.
export function isNumeric(type) {
  return /^(S?Byte|U?Int(16|32|64)|Float|Double)$/.test(type);
}
