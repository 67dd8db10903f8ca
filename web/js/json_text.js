// Integers beyond 2^53 would lose digits as numbers: ids and continuation points arrive as text.

const TOKEN = /"(?:[^"\\]|\\.)*"|(?<![\d.eE+-])-?\d{16,}(?![\d.eE])/g;

export function parseJson(text) {
  return JSON.parse(text.replace(TOKEN, (found) => (found[0] === '"' ? found : `"${found}"`)));
}
