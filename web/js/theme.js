// Light, dark, or as the system has it; remembered by the browser.

const KEY = 'orva.theme';
const ORDER = ['auto', 'light', 'dark'];
const WORDS = { auto: 'as the system', light: 'light', dark: 'dark' };
const SIGNS = { auto: '◐', light: '☀', dark: '☾' };

function stored() {
  try {
    const theme = localStorage.getItem(KEY);
    return ORDER.includes(theme) ? theme : 'auto';
  } catch {
    return 'auto';
  }
}

function apply(theme, button) {
  if (theme === 'auto') delete document.documentElement.dataset.theme;
  else document.documentElement.dataset.theme = theme;
  button.textContent = SIGNS[theme];
  button.title = `Colours: ${WORDS[theme]} (press to change)`;
  button.setAttribute('aria-label', `Colours: ${WORDS[theme]}`);
}

// `onChange` is called whenever the colours are others.
export function setUpTheme(button, onChange = () => {}) {
  let theme = stored();
  apply(theme, button);
  button.addEventListener('click', () => {
    theme = ORDER[(ORDER.indexOf(theme) + 1) % ORDER.length];
    try {
      localStorage.setItem(KEY, theme);
    } catch {
      // Not remembered then.
    }
    apply(theme, button);
    onChange();
  });
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', onChange);
}

// A colour of the style sheet, such as "--line-3".
export function color(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}
