// Asks for the password when the server wants one.
import { logIn } from "./api.js";
import { byId } from "./dom.js";

const KEY = "calvane-login"; // Scripts do not see the cookie of the session.

/** Shows the button where there may be a session to end; `onLogout` is called by it. */
export function offerLogout(onLogout) {
  const button = byId("logout");
  button.hidden = localStorage.getItem(KEY) === null;
  button.addEventListener("click", () => {
    localStorage.removeItem(KEY);
    onLogout();
  });
}

/** Resolves when the server has taken the password. */
export function askPassword() {
  const dialog = byId("login-dialog");
  const form = byId("login-form");
  const problem = byId("login-problem");
  return new Promise((resolve) => {
    const onCancel = (event) => event.preventDefault(); // There is nothing to see without.
    const onSubmit = async (event) => {
      event.preventDefault();
      problem.textContent = "";
      try {
        await logIn(byId("password").value);
      } catch (error) {
        problem.textContent = `${error.message}.`;
        byId("password").select();
        return;
      }
      form.removeEventListener("submit", onSubmit);
      dialog.removeEventListener("cancel", onCancel);
      byId("password").value = "";
      localStorage.setItem(KEY, "");
      byId("logout").hidden = false;
      dialog.close();
      resolve();
    };
    form.addEventListener("submit", onSubmit);
    dialog.addEventListener("cancel", onCancel);
    dialog.showModal();
    byId("password").focus();
  });
}
