// element('button.primary', { type: 'button', onclick }, 'Text', child...)
export function element(selector, attributes = {}, ...children) {
  const [tag, ...classes] = selector.split('.');
  const node = document.createElement(tag || 'div');
  if (classes.length > 0) node.className = classes.join(' ');
  for (const [name, value] of Object.entries(attributes)) {
    if (value === undefined || value === null || value === false) continue;
    if (name.startsWith('on')) node[name] = value;
    else node.setAttribute(name, value === true ? '' : value);
  }
  node.append(...children.filter((child) => child !== null && child !== undefined));
  return node;
}

export function byId(id) {
  return document.getElementById(id);
}
