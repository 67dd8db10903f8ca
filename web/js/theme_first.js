// Before anything is drawn, so that a dark page does not flash.
try {
  const theme = localStorage.getItem('orva.theme');
  if (theme === 'light' || theme === 'dark') document.documentElement.dataset.theme = theme;
} catch {
  // As the system has it.
}
