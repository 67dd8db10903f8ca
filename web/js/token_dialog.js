// Asks for the token that the host wants, and keeps it where the user says.

const KEY = 'orva.token';

function read(storage) {
  try {
    return storage().getItem(KEY) ?? '';
  } catch {
    return '';
  }
}

export function storedToken() {
  return read(() => sessionStorage) || read(() => localStorage);
}

function store(token, onThisDevice) {
  try {
    sessionStorage.setItem(KEY, token);
    if (onThisDevice) localStorage.setItem(KEY, token);
    else localStorage.removeItem(KEY);
  } catch {
    // It lasts as long as the page then.
  }
}

// Resolves with the token once it was given. One dialog at a time.
let asking = null;
export function askToken(wasRefused) {
  asking ??= new Promise((resolve) => {
    const dialog = document.getElementById('token-dialog');
    const field = dialog.querySelector('input[type=password]');
    const keep = dialog.querySelector('input[type=checkbox]');
    dialog.querySelector('.dialog-error').hidden = !wasRefused;
    dialog.addEventListener('cancel', (event) => event.preventDefault());
    dialog.querySelector('form').onsubmit = (event) => {
      event.preventDefault();
      if (!field.value) return;
      store(field.value, keep.checked);
      dialog.close();
      asking = null;
      resolve(field.value);
      field.value = '';
    };
    dialog.showModal();
    field.focus();
  });
  return asking;
}
