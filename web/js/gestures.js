// Wheel, drag and touch over the chart. handlers: { zoom(factor, part), pan(part), done() }, where a
// part is one of the plot's width.

export function listenForGestures(over, handlers) {
  const partOf = (event) => {
    const box = over.getBoundingClientRect();
    return (event.clientX - box.left) / box.width;
  };
  const width = () => over.getBoundingClientRect().width;

  over.addEventListener(
    'wheel',
    (event) => {
      event.preventDefault();
      const unit = event.deltaMode === 1 ? 16 : event.deltaMode === 2 ? 400 : 1;
      const sideways = Math.abs(event.deltaX) > Math.abs(event.deltaY) || event.shiftKey;
      if (sideways) handlers.pan(((event.deltaX || event.deltaY) * unit) / width());
      else handlers.zoom(Math.exp(Math.max(-1, Math.min(1, (event.deltaY * unit) / 300))), partOf(event));
    },
    { passive: false },
  );

  // One finger moves, two zoom; the mouse moves with Shift held or its middle button.
  const points = new Map();
  const moves = (event) => event.pointerType !== 'mouse' || event.shiftKey || event.button === 1;
  over.addEventListener('pointerdown', (event) => {
    if (!moves(event)) return;
    points.set(event.pointerId, event.clientX);
    over.setPointerCapture(event.pointerId);
  });
  over.addEventListener('pointermove', (event) => {
    if (!points.has(event.pointerId)) return;
    const before = [...points.values()];
    const moved = event.clientX - points.get(event.pointerId);
    if (moved === 0) return;
    points.set(event.pointerId, event.clientX);
    const after = [...points.values()];
    if (after.length === 1) return handlers.pan(-moved / width());
    const distance = ([a, b]) => Math.max(20, Math.abs(a - b));
    const box = over.getBoundingClientRect();
    const middle = ((after[0] + after[1]) / 2 - box.left) / box.width;
    handlers.zoom(distance(before) / distance(after), middle);
  });
  const end = (event) => {
    if (points.delete(event.pointerId) && points.size === 0) handlers.done();
  };
  over.addEventListener('pointerup', end);
  over.addEventListener('pointercancel', end);
}
