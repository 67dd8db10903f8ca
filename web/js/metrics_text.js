// Reads the figures that the host serves as text.

const LINE = /^([a-zA-Z_:][\w:]*)(?:\{(.*)\})?\s+(\S+)/;
const LABEL = /([a-zA-Z_]\w*)="((?:[^"\\]|\\.)*)"/g;

function unescaped(text) {
  return text.replace(/\\(.)/g, (_, c) => (c === 'n' ? '\n' : c));
}

function labelsOf(text) {
  const labels = {};
  for (const [, name, value] of (text ?? '').matchAll(LABEL)) labels[name] = unescaped(value);
  return labels;
}

function numberOf(text) {
  if (text === '+Inf') return Infinity;
  return text === '-Inf' ? -Infinity : Number(text);
}

// A map from each family's name to { help, kind, samples: [{ labels, value }] }.
export function parseMetrics(text) {
  const families = new Map();
  const family = (name) => {
    if (!families.has(name)) families.set(name, { help: '', kind: '', samples: [] });
    return families.get(name);
  };
  for (const line of text.split('\n')) {
    const comment = /^# (HELP|TYPE) (\S+) (.*)$/.exec(line);
    if (comment) {
      family(comment[2])[comment[1] === 'HELP' ? 'help' : 'kind'] = unescaped(comment[3]);
    } else if (!line.startsWith('#')) {
      const match = LINE.exec(line);
      if (match) family(match[1]).samples.push({ labels: labelsOf(match[2]), value: numberOf(match[3]) });
    }
  }
  return families;
}

// The sum of the samples whose labels match; null when there is none.
export function figure(families, name, labels = {}) {
  const fits = (sample) => Object.entries(labels).every(([key, value]) => sample.labels[key] === value);
  const samples = (families.get(name)?.samples ?? []).filter(fits);
  return samples.length === 0 ? null : samples.reduce((sum, sample) => sum + sample.value, 0);
}
